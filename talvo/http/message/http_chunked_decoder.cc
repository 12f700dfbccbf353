#include "talvo/http/message/http_chunked_decoder.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/http/message/http_text.h"

namespace {

constexpr auto HEX_VALUES = [] {
    std::array<BYTE, 256> values{};
    values.fill(16);
    for (BYTE i = 0; i < 16; ++i)
        values[static_cast<BYTE>("0123456789abcdef"[i])] = values[static_cast<BYTE>("0123456789ABCDEF"[i])] = i;
    return values;
}();

// Hexadecimal as sscanf reads it: unless strict, leading blanks, sign and 0x, and any text behind are accepted. FALSE: not a
// number.
BOOL scan_size(std::string_view aNumber, BOOL aStrict, uint64_t& aSize) {
    const std::string_view strDigits = aStrict ? aNumber.substr(0, aNumber.find_last_not_of(" \t") + 1) : aNumber;
    const auto [pEnd, error] = std::from_chars(strDigits.data(), strDigits.data() + strDigits.size(), aSize, 16);
    if (error == std::errc() && pEnd == strDigits.data() + strDigits.size())
        return TRUE;
    if (aStrict)
        return FALSE;
    unsigned long ulSize = 0;  // 64 bits; on overflow sscanf stores the largest number
    const BOOL bRead = std::sscanf(CCmString(aNumber).c_str(), "%lx", &ulSize) == 1;
    aSize = ulSize;
    return bRead;
}

}  // namespace

void CCmHttpChunkedDecoder::Reset() {
    m_State = SIZE_LINE;
    m_strLine.clear();
    m_dwRemaining = 0;
    m_bCRSeen = FALSE;
    m_bNoMemory = FALSE;
    m_Trailers.Clear();
    m_Folded = {};
    m_dwTrailerLines = 0;
}

[[gnu::flatten]] BOOL CCmHttpChunkedDecoder::HandleChunkedContent(const char* aBuf, unsigned long aLen, CCmString& aOut,
                                                                  unsigned long& aConsumed) {
    aConsumed = 0;
    if (!aBuf)
        return FALSE;
    std::string_view strInput(aBuf, aLen);
    BOOL bGood = TRUE;
    for (std::string_view strData; bGood && !strInput.empty() && !IsFinished();)
        bGood = Next(strInput, strData) && talvo::WithMemory([&] { aOut.append(strData); });
    aConsumed = aLen - strInput.size();
    return bGood;
}

BOOL CCmHttpChunkedDecoder::Next(std::string_view& aInput, std::string_view& aData) {
    aData = {};
    BOOL bGood = FALSE;
    if (!talvo::WithMemory([&] { bGood = Step(aInput, aData); }))
        m_bNoMemory = TRUE;
    return bGood;
}

// Advances to the next data.
BOOL CCmHttpChunkedDecoder::Step(std::string_view& aInput, std::string_view& aData) {
    while (!aInput.empty() && m_State != FINISHED) {
        if (m_State == DATA && m_dwRemaining > 0) {
            aData = aInput.substr(0, m_dwRemaining);
            aInput.remove_prefix(aData.size());
            m_dwRemaining -= static_cast<DWORD>(aData.size());
            __builtin_prefetch(aInput.data());  // the next line, while the caller copies the data
            return TRUE;
        }
        if (!(m_State == DATA ? TakeLineEnd(aInput) : TakeUsualSize(aInput) || HandleLine(aInput)))
            return FALSE;
    }
    return TRUE;
}

// A size line of one to eight digits and CR LF that is in the input as a whole. FALSE, and nothing changes: it is none.
BOOL CCmHttpChunkedDecoder::TakeUsualSize(std::string_view& aInput) {
    if (m_State != SIZE_LINE || !m_strLine.empty())
        return FALSE;
    const size_t stMost = std::min({aInput.size(), size_t{8}, size_t{m_Limits.m_dwMaxLine}});
    DWORD dwSize = 0;
    size_t stDigits = 0;
    for (; stDigits < stMost && HEX_VALUES[static_cast<BYTE>(aInput[stDigits])] < 16; ++stDigits)
        dwSize = dwSize << 4 | HEX_VALUES[static_cast<BYTE>(aInput[stDigits])];
    if (stDigits == 0 || aInput.substr(stDigits, 2) != "\r\n")
        return FALSE;
    aInput.remove_prefix(stDigits + 2);
    BeginChunk(dwSize);
    return TRUE;
}

void CCmHttpChunkedDecoder::BeginChunk(DWORD aSize) {
    m_dwRemaining = aSize;
    m_State = m_dwRemaining > 0 ? DATA : TRAILER;
    m_bCRSeen = FALSE;
}

// Out of line, because most lines are usual sizes.
[[gnu::noinline]] BOOL CCmHttpChunkedDecoder::HandleLine(std::string_view& aInput) {
    std::string_view strLine;
    switch (TakeLine(aInput, strLine)) {
    case NO_LINE:
        return TRUE;
    case TOO_LONG:
        CM_WARNING_TRACE("CCmHttpChunkedDecoder::HandleChunkedContent, a line is too long.");
        return FALSE;
    case NO_CR:
        CM_WARNING_TRACE("CCmHttpChunkedDecoder::HandleChunkedContent, a line ends without CR.");
        return FALSE;
    case LINE:
        break;
    }
    if (m_bStrict && !talvo::is_sendable(strLine)) {
        CM_WARNING_TRACE("CCmHttpChunkedDecoder::HandleChunkedContent, a CR or NUL stands inside a line.");
        return FALSE;
    }
    const BOOL bGood = m_State == SIZE_LINE ? ParseSize(strLine) : HandleTrailer(strLine);
    m_strLine.clear();
    return bGood;
}

// The line without its end and leading spaces: in the input if that contains it whole, otherwise in the line buffer.
CCmHttpChunkedDecoder::ELine CCmHttpChunkedDecoder::TakeLine(std::string_view& aInput, std::string_view& aLine) {
    const size_t stEnd = aInput.find('\n');
    aLine = aInput.substr(0, stEnd);
    aInput.remove_prefix(std::min(aLine.size() + 1, aInput.size()));
    if (m_strLine.size() + aLine.size() > size_t{m_Limits.m_dwMaxLine} + 1)
        return TOO_LONG;
    if (!m_strLine.empty() || stEnd == std::string_view::npos)
        aLine = m_strLine.append(aLine);
    if (stEnd == std::string_view::npos)
        return NO_LINE;
    if (!aLine.empty() && aLine.back() == '\r')
        aLine.remove_suffix(1);
    else if (m_bStrict)
        return NO_CR;
    if (aLine.size() > m_Limits.m_dwMaxLine)
        return TOO_LONG;
    if (!m_bStrict)
        aLine.remove_prefix(std::min(aLine.find_first_not_of(' '), aLine.size()));
    return LINE;
}

BOOL CCmHttpChunkedDecoder::ParseSize(std::string_view aLine) {
    const std::string_view strNumber = aLine.substr(0, aLine.find(';'));
    uint64_t ullSize = 0;
    if (!scan_size(strNumber, m_bStrict, ullSize)) {
        CM_WARNING_TRACE("CCmHttpChunkedDecoder::HandleChunkedContent, sscanf() failed! str=" << strNumber);
        return FALSE;
    }
    if (ullSize > UINT32_MAX) {
        CM_WARNING_TRACE("CCmHttpChunkedDecoder::HandleChunkedContent, the size does not fit 32 bits. str=" << strNumber);
        return FALSE;
    }
    BeginChunk(static_cast<DWORD>(ullSize));
    return TRUE;
}

// The empty line ends the trailers, and with them the body.
BOOL CCmHttpChunkedDecoder::HandleTrailer(std::string_view aLine) {
    if (!aLine.empty() && ++m_dwTrailerLines > m_Limits.m_dwMaxHeaders) {
        CM_WARNING_TRACE("CCmHttpChunkedDecoder::HandleChunkedContent, there are too many trailers.");
        return FALSE;
    }
    if (m_bUnfold && m_Folded.Continue(aLine))
        return m_Folded.Get().size() <= m_Limits.m_dwMaxLine;
    if (!m_Folded.IsEmpty() && !ParseTrailer(m_Folded.Get()))
        return FALSE;
    m_Folded.Hold(m_bUnfold ? aLine : std::string_view());
    if (aLine.empty())
        m_State = FINISHED;
    return aLine.empty() || m_bUnfold || ParseTrailer(aLine);
}

BOOL CCmHttpChunkedDecoder::ParseTrailer(std::string_view aLine) {
    const BOOL bGood = m_Trailers.ParseHeaderLine(aLine, nullptr, nullptr);
    m_bNoMemory = !bGood;
    return bGood && !(m_bStrict && (m_Trailers.GetFaults() & CM_HTTP_FAULT_NAME));
}

// The CR and LF behind a chunk's data, which may arrive separately.
BOOL CCmHttpChunkedDecoder::TakeLineEnd(std::string_view& aInput) {
    if (!m_bCRSeen) {
        if (aInput.front() != '\r') {
            CM_WARNING_TRACE("CCmHttpChunkedDecoder::HandleChunkedContent,*aBuf != '\\r', *aBuf=" << aInput.front());
            return FALSE;
        }
        m_bCRSeen = TRUE;
        aInput.remove_prefix(1);
        if (aInput.empty())
            return TRUE;
    }
    if (aInput.front() != '\n') {
        CM_WARNING_TRACE("CCmHttpChunkedDecoder::HandleChunkedContent,*aBuf != '\\n', *aBuf=" << aInput.front());
        return FALSE;
    }
    aInput.remove_prefix(1);
    m_State = SIZE_LINE;
    return TRUE;
}
