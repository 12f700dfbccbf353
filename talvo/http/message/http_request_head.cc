#include "talvo/http/message/http_request_head.h"

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_text.h"

BOOL CCmHttpRequestHead::SetMethod(const CCmHttpAtom& aMethod) {
#define CM_SET_METHOD(aMember, aText)          \
    if (aMethod == CCmHttpAtomList::aMember) { \
        m_Method = aMethod;                    \
        return TRUE;                           \
    }
    CM_FOR_EACH_HTTP_METHOD(CM_SET_METHOD)
#undef CM_SET_METHOD
    return FALSE;
}

BOOL CCmHttpRequestHead::SetAnyMethod(std::string_view aMethod) {
    const CCmHttpAtom method = talvo::is_token(aMethod) ? ResolveName(aMethod) : CCmHttpAtom();
    if (!method)
        return FALSE;
    m_Method = method;
    return TRUE;
}

BOOL CCmHttpRequestHead::Clear() {
    m_Method = nullptr;
    m_Version = CM_HTTP_VERSION_UNKNOWN;
    m_strRequestURI.clear();
    return CCmHttpHeaderArray::Clear();
}

// METHOD SP URI SP VERSION: the first two spaces separate, also if the parts contain others.
BOOL CCmHttpRequestHead::ParseFirstLine_t(const char* aLine) {
    const std::string_view strLine = aLine;
    const size_t stMethod = strLine.find(' ');
    const size_t stURI = stMethod == std::string_view::npos ? stMethod : strLine.find(' ', stMethod + 1);
    m_Method = nullptr;
    m_strRequestURI.clear();
    if (stURI != std::string_view::npos) {
        m_Method = ResolveParsed_t(strLine.substr(0, stMethod));
        m_strRequestURI.assign(strLine, stMethod + 1, stURI - stMethod - 1);
    }
    if (!m_Method || m_strRequestURI.empty()) {
        CM_ERROR_TRACE_THIS("CCmHttpRequestHead::ParseFirstLine_t, unknow method. aLine=" << aLine);
        return FALSE;
    }
    const std::string_view strVersion = strLine.substr(stURI + 1);
    if (talvo::equal_no_case(strVersion, "HTTP/1.1")) {
        m_Version = CM_HTTP_VERSION_11;
    } else if (talvo::equal_no_case(strVersion, "HTTP/1.0")) {
        m_Version = CM_HTTP_VERSION_10;
    } else {
        CM_ERROR_TRACE_THIS("CCmHttpRequestHead::ParseFirstLine_t, unknow HTTP version. aLine=" << aLine);
        return FALSE;
    }
    return TRUE;
}

BOOL CCmHttpRequestHead::SetFirstLine_i(std::string_view aMethod, std::string_view aURI, CCmHttpVersion aVersion) {
    return EndFirstLine_t(talvo::WithMemory([&] {
        m_Method = ResolveParsed_t(aMethod);
        m_strRequestURI.assign(aURI);
        m_Version = aVersion;
    }));
}

void CCmHttpRequestHead::FlattenFirstLine(CCmString& aOut) const {
    const char* pMethod = m_Method;
    aOut.append(pMethod ? pMethod : "").append(" ").append(m_strRequestURI);
    aOut.append(m_Version >= CM_HTTP_VERSION_11 ? " HTTP/1.1\r\n" : " HTTP/1.0\r\n");
}

CCmString CCmHttpRequestHead::Flatten() const {
    CCmString strOut;
    FlattenFirstLine(strOut);
    CCmHttpHeaderArray::Flatten(strOut);
    return strOut;
}

void CCmHttpRequestHead::FlattenToSend(CCmString& aOut) const {
    FlattenFirstLine(aOut);
    FlattenLines_t(aOut);
    aOut.append("\r\n");
}

BOOL CCmHttpRequestHead::IsPersistent() const {
    const CCmString* pValue = FindConnection_t();
    return m_Version >= CM_HTTP_VERSION_11 && pValue && talvo::equal_no_case(*pValue, "keep-alive");
}
