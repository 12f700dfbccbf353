// The chunked transfer coding, read from whatever pieces arrive.
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/types.h"
#include "talvo/http/message/http_folded_line.h"
#include "talvo/http/message/http_header_array.h"
#include "talvo/http/message/http_limits.h"

//  size [; extension] CRLF   data CRLF   ...   0 CRLF   trailer CRLF ...   CRLF
//
// Sizes are hexadecimal and must fit 32 bits. Extensions are dropped, trailers are kept apart from the message's headers. A
// size is what sscanf takes for one, and of a line's end the CR may be missing, but not behind a chunk's data; see SetStrict.
// One body for each object or Reset; one thread at a time.
class TALVO_API CCmHttpChunkedDecoder {
public:
    // Appends the data in aBuf's aLen bytes to aOut; aConsumed is how many bytes were used: all, unless the body ended before.
    // FALSE, in most cases with a line at level 10: aBuf is null, the coding is broken, a line or the trailers are beyond the
    // limits, or memory ran out. Behind the end nothing is used and TRUE returned.
    BOOL HandleChunkedContent(const char* aBuf, unsigned long aLen, CCmString& aOut, unsigned long& aConsumed);

    // The same without a copy: uses aInput from its front up to the end of the next piece of data, which aData then views, or
    // all of it if there is no more data (aData is then empty) or up to the body's end. FALSE as above.
    BOOL Next(std::string_view& aInput, std::string_view& aData);

    BOOL IsFinished() const { return m_State == FINISHED; }
    BOOL IsOutOfMemory() const { return m_bNoMemory; }  // that was the reason of FALSE
    const CCmHttpHeaderArray& GetTrailers() const { return m_Trailers; }

    void SetLimits(const CCmHttpLimits& aLimits) { m_Limits = aLimits; }

    // TRUE also refuses what others on the way may read differently: a size that is more than hexadecimal digits and blanks
    // behind them, spaces at a line's front, a line end without its CR, a CR or NUL inside a line, a trailer whose name is no
    // token or that has no colon.
    void SetStrict(BOOL aStrict) { m_bStrict = aStrict; }

    // TRUE: a trailer that begins with a blank continues the one before it.
    void SetUnfolding(BOOL aUnfold) { m_bUnfold = aUnfold; }

    // The bytes of the chunk under way that have not come yet.
    DWORD GetRemaining() const { return m_dwRemaining; }

    // Forgets everything but limits, strictness and unfolding.
    void Reset();

private:
    enum EState : DWORD { SIZE_LINE = 0, DATA = 1, TRAILER = 2, FINISHED = 4 };
    enum ELine { NO_LINE, LINE, TOO_LONG, NO_CR };

    BOOL Step(std::string_view& aInput, std::string_view& aData);
    ELine TakeLine(std::string_view& aInput, std::string_view& aLine);
    BOOL HandleLine(std::string_view& aInput);
    BOOL ParseSize(std::string_view aLine);
    BOOL HandleTrailer(std::string_view aLine);
    BOOL ParseTrailer(std::string_view aLine);
    BOOL TakeLineEnd(std::string_view& aInput);

    EState m_State = SIZE_LINE;
    CCmString m_strLine;  // a line whose end has not arrived
    DWORD m_dwRemaining = 0;
    BOOL m_bCRSeen = FALSE;
    CCmHttpHeaderArray m_Trailers;
    talvo::CHttpFoldedLine m_Folded;  // a trailer that the next line may continue
    CCmHttpLimits m_Limits;
    BOOL m_bStrict = FALSE;
    BOOL m_bUnfold = FALSE;
    BOOL m_bNoMemory = FALSE;
    DWORD m_dwTrailerLines = 0;
};
