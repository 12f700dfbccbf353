#include "talvo/http/server/http_request_reader.h"

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
    const DWORD dwLength = aBlock.GetTopLevelLength();
    CHttpLines lines({aBlock.GetTopLevelReadPtr(), dwLength});
    int nResult = MORE;
    for (CHttpLine line; nResult == MORE && lines.Next(line);) {
        if (m_strPartial.empty()) {
            nResult = OnLine(line, aHead);
        } else {
            m_strPartial += line.m_Text;
            nResult = OnLine({m_strPartial, m_strPartial.find(':')}, aHead);
            m_strPartial.clear();
        }
    }
    DWORD dwUsed = lines.GetUsed();
    if (nResult == MORE) {
        nResult = OnPart(lines.GetRest());
        dwUsed = dwLength;
    }
    aBlock.AdvanceTopLevelReadPtr(dwUsed);
    return nResult;
}

// With the usual steps of all lines in line, as CCmHttpHeaderArray::ParseLine_i.
[[gnu::flatten]] int CHttpRequestReader::OnLine(CHttpLine aLine, CCmHttpRequestHead& aHead) {
    std::string_view& line = aLine.m_Text;
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    const DWORD dwLines = m_Check.GetLines();
    if (line.empty() && dwLines == 0)
        return MORE;  // some clients send an empty line after a body
    m_stHead += line.size();
    if (line.size() > m_Settings.m_Limits.m_dwMaxLine)
        return TooLong();
    if (dwLines > m_Settings.m_Limits.m_dwMaxHeaders && !line.empty())
        return HTTP_HEADERS_TOO_LARGE;
    if (line.empty())
        return OnEnd(aHead);
    return dwLines == 0 ? OnRequestLine(line, aHead) : OnHeaderLine(aLine, aHead);
}

int CHttpRequestReader::OnRequestLine(std::string_view aLine, CCmHttpRequestHead& aHead) {
    CHttpRequestLine parts;
    if (const int nStatus = m_Check.OnRequestLine(aLine, parts); nStatus != 0)
        return nStatus;
    if (IsHeadTooLarge())
        return HTTP_HEADERS_TOO_LARGE;
    return aHead.SetFirstLine_i(parts.m_Method, parts.m_Target, parts.m_Version) ? MORE : HTTP_SERVICE_UNAVAILABLE;
}

int CHttpRequestReader::OnHeaderLine(const CHttpLine& aLine, CCmHttpRequestHead& aHead) {
    CHttpField field;
    if (const int nStatus = m_Check.OnHeaderLine(aLine, aHead, field); nStatus != 0)
        return nStatus;
    if (IsHeadTooLarge())
        return HTTP_HEADERS_TOO_LARGE;
    const CCmHttpAtom atom = field.m_Known ? field.m_Known : field.m_Other;
    return aHead.AddField_i(atom, field.m_Name, field.m_Value) ? MORE : HTTP_SERVICE_UNAVAILABLE;
}

int CHttpRequestReader::OnEnd(CCmHttpRequestHead& aHead) {
    if (const int nStatus = m_Check.OnEnd(); nStatus != 0)
        return nStatus;
    if (IsHeadTooLarge())
        return HTTP_HEADERS_TOO_LARGE;
    aHead.ParseLine(std::string_view());
    return COMPLETE;
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
