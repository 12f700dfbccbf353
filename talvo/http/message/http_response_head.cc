#include "talvo/http/message/http_response_head.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "talvo/base/trace.h"
#include "talvo/http/message/http_text.h"

BOOL CCmHttpResponseHead::Clear() {
    m_Version = CM_HTTP_VERSION_UNKNOWN;
    m_lStatus = 0;
    m_strStatusText.clear();
    return CCmHttpHeaderArray::Clear();
}

// HTTP/1.1 200 Reason, with one character of any kind behind the version; or HTTP 200 Reason, which counts as 1.0.
BOOL CCmHttpResponseHead::ParseFirstLine_t(const char* aLine) {
    const std::string_view strLine = aLine;
    if (!talvo::equal_no_case(strLine.substr(0, 4), "HTTP")) {
        CM_ERROR_TRACE_THIS("CCmHttpResponseHead::ParseFirstLine_t, no HTTP ahead. aLine=" << aLine);
        return FALSE;
    }
    size_t stStatus = 5;
    m_Version = CM_HTTP_VERSION_10;
    if (strLine.substr(4, 1) == "/") {
        const std::string_view strVersion = strLine.substr(5, 3);
        if (strVersion != "1.0" && strVersion != "1.1") {
            m_Version = CM_HTTP_VERSION_UNKNOWN;
            CM_ERROR_TRACE_THIS("CCmHttpResponseHead::ParseFirstLine_t, unknow HTTP version. aLine=" << aLine);
            return FALSE;
        }
        m_Version = strVersion == "1.1" ? CM_HTTP_VERSION_11 : CM_HTTP_VERSION_10;
        stStatus = 9;
    }
    const char* pStatus = aLine + std::min(stStatus, strLine.size());
    m_lStatus = static_cast<int32_t>(std::clamp<long>(std::strtol(pStatus, nullptr, 10), INT32_MIN, INT32_MAX));
    const size_t stSpace = strLine.find(' ', stStatus);
    m_strStatusText = stSpace == std::string_view::npos ? "OK" : strLine.substr(stSpace + 1);
    return TRUE;
}

long CCmHttpResponseHead::GetContentLength() const {
    return m_lStatus == 204 || m_lStatus == 205 || m_lStatus == 304 ? 0 : CCmHttpHeaderArray::GetContentLength();
}

void CCmHttpResponseHead::FlattenFirstLine(CCmString& aOut) const {
    aOut.append("HTTP/");
    if (m_Version != CM_HTTP_VERSION_UNKNOWN)
        aOut.append(m_Version >= CM_HTTP_VERSION_11 ? "1.1 " : "1.0 ");
    aOut.append(std::to_string(m_lStatus)).append(" ").append(m_strStatusText).append("\r\n");
}

CCmString CCmHttpResponseHead::Flatten() const {
    CCmString strOut;
    FlattenFirstLine(strOut);
    CCmHttpHeaderArray::Flatten(strOut);
    return strOut;
}

void CCmHttpResponseHead::FlattenToSend(CCmString& aOut) const {
    FlattenFirstLine(aOut);
    FlattenLines_t(aOut);
    aOut.append("\r\n");
}

BOOL CCmHttpResponseHead::IsPersistent() const {
    const CCmString* pValue = FindConnection_t();
    if (!pValue)
        return FALSE;
    return m_Version >= CM_HTTP_VERSION_11 ? !talvo::equal_no_case(*pValue, "close")
                                           : talvo::equal_no_case(*pValue, "keep-alive");
}
