// Decodes the chunked transfer coding from pieces of any size.
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
// size is any number that sscanf accepts. The CR of a line end may be missing, but not behind a chunk's data; see SetStrict.
// One body for each object or Reset; one thread at a time.
class TALVO_API CCmHttpChunkedDecoder {
public:
    // Appends the data in aBuf's aLen bytes to aOut. aConsumed (out): the number of bytes used: all, unless the body ended
    // before. FALSE, mostly with a trace line at level 10: aBuf is null, the coding is broken, a line or the trailers exceed
    // the limits, or memory ran out. Behind the end no bytes are used, and the result is TRUE.
    CmBool HandleChunkedContent(const char* aBuf, unsigned long aLen, CCmString& aOut, unsigned long& aConsumed);

    // The same without a copy. Uses aInput from its front up to the end of the next piece of data, and aData (out) is a view on
    // that piece. Without more data it uses all of aInput, or up to the body's end, and aData is empty. FALSE as above.
    CmBool Next(std::string_view& aInput, std::string_view& aData);

    CmBool IsFinished() const { return m_State == FINISHED; }             // the body and its trailers are complete
    CmBool IsOutOfMemory() const { return m_bNoMemory; }                  // the cause of FALSE
    const CCmHttpHeaderArray& GetTrailers() const { return m_Trailers; }  // those that have come

    void SetLimits(const CCmHttpLimits& aLimits) { m_Limits = aLimits; }  // of the trailers

    // TRUE also refuses input that other readers may interpret differently: a size with more than hexadecimal digits and blanks
    // behind them, spaces at the start of a line, a line end without its CR, a CR or NUL inside a line, a trailer without a
    // colon or whose name is not a token.
    void SetStrict(CmBool aStrict) { m_bStrict = aStrict; }

    // TRUE: a trailer that begins with a blank continues the one before it.
    void SetUnfolding(CmBool aUnfold) { m_bUnfold = aUnfold; }

    // The bytes of the current chunk that have not come yet.
    CmDword GetRemaining() const { return m_dwRemaining; }

    // Resets everything except limits, strictness and unfolding.
    void Reset();

private:
    enum EState : CmDword { SIZE_LINE = 0, DATA = 1, TRAILER = 2, FINISHED = 4 };
    enum ELine { NO_LINE, LINE, TOO_LONG, NO_CR };

    CmBool Step(std::string_view& aInput, std::string_view& aData);
    ELine TakeLine(std::string_view& aInput, std::string_view& aLine);
    CmBool TakeUsualSize(std::string_view& aInput);
    void BeginChunk(CmDword aSize);
    CmBool HandleLine(std::string_view& aInput);
    CmBool ParseSize(std::string_view aLine);
    CmBool HandleTrailer(std::string_view aLine);
    CmBool ParseTrailer(std::string_view aLine);
    CmBool TakeLineEnd(std::string_view& aInput);

    EState m_State = SIZE_LINE;
    CCmString m_strLine;  // a line whose end has not arrived
    CmDword m_dwRemaining = 0;
    CmBool m_bCRSeen = CM_FALSE;
    CCmHttpHeaderArray m_Trailers;
    talvo::CHttpFoldedLine m_Folded;  // a trailer that the next line may continue
    CCmHttpLimits m_Limits;
    CmBool m_bStrict = CM_FALSE;
    CmBool m_bUnfold = CM_FALSE;
    CmBool m_bNoMemory = CM_FALSE;
    CmDword m_dwTrailerLines = 0;
};
