#include "talvo/http/server/http_request_reader.h"

#include <cstring>

#include "talvo/http/message/http_status.h"

namespace talvo {

namespace {

constexpr size_t KEPT_CAPACITY = 1024;  // of a partial line, between heads

}  // namespace

int CHttpRequestReader::Feed(CCmMessageBlock& aChain, CCmHttpRequestHead& aHead) {
    int nResult = MORE;
    for (CCmMessageBlock* pBlock = &aChain; pBlock && nResult == MORE; pBlock = pBlock->GetNext()) {
        if (pBlock->GetTopLevelLength() > 0)
            nResult = FeedBlock(*pBlock, aHead);
    }
    if (nResult != MORE)
        Reset();
    return nResult;
}

int CHttpRequestReader::FeedBlock(CCmMessageBlock& aBlock, CCmHttpRequestHead& aHead) {
    const char* pBegin = aBlock.GetTopLevelReadPtr();
    const char* const pEnd = pBegin + aBlock.GetTopLevelLength();
    const char* pLine = pBegin;
    int nResult = MORE;
    while (nResult == MORE) {
        const size_t stLeft = static_cast<size_t>(pEnd - pLine);
        const auto* pFound = static_cast<const char*>(std::memchr(pLine, '\n', stLeft));
        if (!pFound) {
            nResult = OnPart({pLine, stLeft});
            pLine = pEnd;
            break;
        }
        const std::string_view line(pLine, static_cast<size_t>(pFound - pLine));
        pLine = pFound + 1;
        if (m_strPartial.empty()) {
            nResult = OnLine(line, aHead);
        } else {
            m_strPartial += line;
            nResult = OnLine(m_strPartial, aHead);
            m_strPartial.clear();
        }
    }
    aBlock.AdvanceTopLevelReadPtr(static_cast<DWORD>(pLine - pBegin));
    return nResult;
}

int CHttpRequestReader::OnLine(std::string_view aLine, CCmHttpRequestHead& aHead) {
    if (!aLine.empty() && aLine.back() == '\r')
        aLine.remove_suffix(1);
    const DWORD dwLines = m_Check.GetLines();
    if (aLine.empty() && dwLines == 0)
        return MORE;  // some clients send an empty line after a body
    m_stHead += aLine.size();
    if (aLine.size() > m_Settings.m_Limits.m_dwMaxLine)
        return TooLong();
    if (dwLines > m_Settings.m_Limits.m_dwMaxHeaders && !aLine.empty())
        return HTTP_HEADERS_TOO_LARGE;
    const int nStatus = aLine.empty() ? m_Check.OnEnd() : m_Check.OnLine(aLine);
    if (nStatus != 0)
        return nStatus;
    if (m_stHead > m_Settings.m_dwMaxHead)
        return HTTP_HEADERS_TOO_LARGE;
    if (!ParseLine(aLine, aHead))
        return aHead.GetFaults() & CM_HTTP_FAULT_MEMORY ? HTTP_SERVICE_UNAVAILABLE : HTTP_BAD_REQUEST;
    return aLine.empty() ? COMPLETE : MORE;
}

// CCmHttpRequestHead accepts the versions 1.0 and 1.1.
BOOL CHttpRequestReader::ParseLine(std::string_view aLine, CCmHttpRequestHead& aHead) {
    if (m_Check.GetLines() != 1 || !m_Check.IsLaterMinor())
        return aHead.ParseLine(aLine);
    CCmString strLine(aLine);
    strLine.back() = '1';
    return aHead.ParseLine(strLine);
}

// The CR of a line end that is not complete yet is not part of the line.
int CHttpRequestReader::OnPart(std::string_view aPart) {
    m_strPartial += aPart;
    if (m_strPartial.size() > m_Settings.m_Limits.m_dwMaxLine + size_t{1})
        return TooLong();
    return m_stHead + m_strPartial.size() > m_Settings.m_dwMaxHead + size_t{1} ? HTTP_HEADERS_TOO_LARGE : MORE;
}

int CHttpRequestReader::TooLong() const { return m_Check.GetLines() == 0 ? HTTP_URI_TOO_LONG : HTTP_HEADERS_TOO_LARGE; }

void CHttpRequestReader::Reset() {
    m_Check.Reset();
    m_strPartial.clear();
    if (m_strPartial.capacity() > KEPT_CAPACITY)
        CCmString().swap(m_strPartial);
    m_stHead = 0;
}

}  // namespace talvo
