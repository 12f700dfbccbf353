#include "talvo/http/client/http_client_request.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "talvo/http/client/http_redirect.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_authority.h"
#include "talvo/http/message/http_text.h"
#include "talvo/http/message/http_url.h"

namespace talvo {

namespace {

using Atoms = CCmHttpAtomList;

constexpr std::string_view USER_AGENT = "talvo";
constexpr size_t MAX_DIGITS = 18;  // of a Content-Length: the most that always fit

BOOL IsNumber(std::string_view aText) {
    return !aText.empty() && aText.size() <= MAX_DIGITS && aText.find_first_not_of("0123456789") == std::string_view::npos;
}

uint64_t ChainLength(const CCmMessageBlock& aChain) {
    uint64_t ullLength = 0;
    for (const CCmMessageBlock* pMb = &aChain; pMb; pMb = pMb->GetNext())
        ullLength += pMb->GetTopLevelLength();
    return ullLength;
}

BOOL IsIdempotent(const CCmHttpAtom& aMethod) {
    return aMethod == Atoms::Get || aMethod == Atoms::Head || aMethod == Atoms::Put || aMethod == Atoms::Delete ||
           aMethod == Atoms::Options || aMethod == Atoms::Trace;
}

// Without a zone, which has no meaning for the server (RFC 6874, section 3).
CCmString MakeHostField(const CCmHttpUrl& aUrl) {
    CCmString strField = aUrl.GetNameAndPort(FALSE);
    const size_t stZone = is_ipv6_host(aUrl.GetHostName()) ? strField.find('%') : CCmString::npos;
    if (stZone != CCmString::npos)
        strField.erase(stZone, strField.find(']') - stZone);
    return strField;
}

// At the end of aHead, without a copy of them in memory that has been freed.
void AddSecrets(const CHttpHeadParts& aParts, CCmString& aHead) {
    const std::pair<const CCmHttpAtom&, const CCmSecret&> SECRETS[] = {
        {Atoms::Authorization, aParts.m_Authorization}, {Atoms::Proxy_Authorization, aParts.m_ProxyAuthorization}};
    size_t stLength = aHead.size();
    for (const auto& [atom, secret] : SECRETS)
        stLength += secret.IsEmpty() ? 0 : std::string_view(atom.operator const char*()).size() + secret.Get().size() + 4;
    if (stLength == aHead.size())
        return;
    aHead.reserve(stLength);
    aHead.resize(aHead.size() - 2);  // the empty line
    for (const auto& [atom, secret] : SECRETS) {
        if (!secret.IsEmpty())
            aHead.append(atom.operator const char*()).append(": ").append(secret.Get()).append("\r\n");
    }
    aHead.append("\r\n");
}

}  // namespace

CHttpClientRequest::CHttpClientRequest() { m_Head.SetMethod(Atoms::Get); }

CmResult CHttpClientRequest::SetMethod(const CCmHttpAtom& aMethod) {
    const char* pText = aMethod;
    if (!pText || !is_token(pText))
        return CM_ERROR_INVALID_ARG;
    return m_Head.SetAnyMethod(pText) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CHttpClientRequest::SetHeader(const CCmHttpAtom& aAtom, const CCmString& aValue, BOOL aMerge) {
    const char* pName = aAtom;
    const std::string_view value = trim_spaces(aValue);
    if (!pName || !is_token(pName) || !is_sendable(aValue))
        return CM_ERROR_INVALID_ARG;
    if (aAtom == Atoms::Content_Length && !value.empty() && !IsNumber(value))
        return CM_ERROR_INVALID_ARG;
    if (aAtom == Atoms::Transfer_Encoding && !value.empty() && (aMerge || !equal_no_case(value, "chunked")))
        return CM_ERROR_INVALID_ARG;
    if (aAtom == Atoms::User_Agent && !aMerge)
        m_bOwnAgent = !value.empty();
    const CCmHttpAtom atom = m_Head.ResolveName(pName);
    return atom && m_Head.SetHeader(atom, aValue, aMerge) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CHttpClientRequest::SetBody(const CCmMessageBlock& aBody) {
    const uint64_t ullLength = ChainLength(aBody);
    if (ullLength > UINT32_MAX)
        return CM_ERROR_INVALID_ARG;
    CCmChainPtr pBody(ullLength > 0 ? aBody.DuplicateChained() : nullptr);
    if (ullLength > 0 && !pBody)
        return CM_ERROR_OUT_OF_MEMORY;
    m_pBody = std::move(pBody);
    m_bBodySet = TRUE;
    m_ullLength = ullLength;
    return CM_OK;
}

CmResult CHttpClientRequest::Prepare() {
    if (GetMethod() == Atoms::Connect)
        return CM_ERROR_NOT_IMPLEMENTED;
    const CCmString* pLength = m_Head.FindHeader(Atoms::Content_Length);
    const uint64_t ullAnnounced = pLength ? std::strtoull(pLength->c_str(), nullptr, 10) : 0;
    const BOOL bChunked = m_Head.PeekHeader(Atoms::Transfer_Encoding);
    if (bChunked && pLength)
        return CM_ERROR_INVALID_ARG;
    if (m_bBodySet && pLength && ullAnnounced != m_ullLength)
        return CM_ERROR_INVALID_ARG;
    if (m_bBodySet) {
        m_Body = bChunked ? WHOLE_CHUNKED : m_ullLength > 0 ? WHOLE : NO_BODY;
    } else {
        m_Body = bChunked ? STREAM_CHUNKED : ullAnnounced > 0 ? STREAM : NO_BODY;
        m_ullLength = ullAnnounced;
    }
    return m_Body != NO_BODY && GetMethod() == Atoms::Trace ? CM_ERROR_INVALID_ARG : CM_OK;
}

BOOL CHttpClientRequest::IsContinueExpected() const {
    const CCmString* pExpect = m_Head.FindHeader(Atoms::Expect);
    return m_Body != NO_BODY && pExpect && has_token(*pExpect, "100-continue");
}

BOOL CHttpClientRequest::IsCloseAsked() const {
    const CCmString* pConnection = m_Head.FindHeader(Atoms::Connection);
    return pConnection && has_token(*pConnection, "close");
}

BOOL CHttpClientRequest::MayRepeat() const { return IsIdempotent(GetMethod()) && !IsStreamed(); }

// The headers that describe the body are removed with it.
void CHttpClientRequest::BecomeGet() {
    m_Head.SetMethod(Atoms::Get);
    for (const CCmHttpAtom& atom : {Atoms::Content_Length, Atoms::Content_Type, Atoms::Content_Encoding,
                                    Atoms::Content_Language, Atoms::Content_Location, Atoms::Content_MD5, Atoms::Content_Range,
                                    Atoms::Content_Transfer_Encoding, Atoms::Transfer_Encoding, Atoms::Trailer, Atoms::Expect})
        m_Head.SetHeader(atom, "", FALSE);
    m_pBody.reset();
    m_bBodySet = FALSE;
    m_Body = NO_BODY;
    m_ullLength = 0;
}

void CHttpClientRequest::LeaveOrigin() {
    for (const CCmHttpAtom& atom : {Atoms::Authorization, Atoms::Proxy_Authorization, Atoms::Cookie, Atoms::Host})
        m_Head.SetHeader(atom, "", FALSE);
}

void CHttpClientRequest::LeaveProxy() { m_Head.SetHeader(Atoms::Proxy_Authorization, "", FALSE); }

// TRUE: the head needs a length; 0 if the method normally has a body and there is none.
BOOL CHttpClientRequest::IsLengthDue_i() const {
    const CCmHttpAtom method = GetMethod();
    const BOOL bMeansContent =
        method == Atoms::Post || method == Atoms::Put || equal_no_case(method.operator const char*(), "PATCH");
    return m_Body == WHOLE || m_Body == STREAM || (m_Body == NO_BODY && (m_bBodySet || bMeansContent));
}

CCmString CHttpClientRequest::MakeHead(const CCmHttpUrl& aUrl, const CHttpHeadParts& aParts) const {
    CCmHttpRequestHead head;
    BOOL bGood = head.SetAnyMethod(GetMethod().operator const char*());
    const auto set = [&](const CCmHttpAtom& aAtom, std::string_view aValue) {
        bGood = head.SetHeader(aAtom, aValue, FALSE) && bGood;
    };
    head.SetRequestURI(aParts.m_strTarget);
    head.SetVerion(CM_HTTP_VERSION_11);
    set(Atoms::Host, MakeHostField(aUrl));
    set(Atoms::User_Agent, m_bOwnAgent ? USER_AGENT : "");
    for (size_t i = 0; i < m_Head.GetCount(); ++i)
        set(m_Head.GetName(i), m_Head.GetValue(i));
    if (!aParts.m_Authorization.IsEmpty())
        set(Atoms::Authorization, "");
    if (!aParts.m_bProxy || !aParts.m_ProxyAuthorization.IsEmpty())
        set(Atoms::Proxy_Authorization, "");
    if (!aParts.m_bKeepAlive)
        set(Atoms::Connection, "close");
    if (IsLengthDue_i())
        set(Atoms::Content_Length, std::to_string(m_ullLength));
    if (m_Body == NO_BODY)
        set(Atoms::Expect, "");
    CCmString strHead;
    if (bGood)
        head.FlattenToSend(strHead);
    if (bGood && !strHead.empty())
        AddSecrets(aParts, strHead);
    return strHead;
}

CCmString MakeHttpTarget(const CCmHttpUrl& aUrl) {
    const CCmString& strPath = aUrl.GetPath();
    return EncodeForHttpUrl(std::string_view(strPath).substr(0, strPath.find('#')));
}

CCmString MakeAbsoluteHttpTarget(const CCmHttpUrl& aUrl) {
    return aUrl.GetScheme() + "://" + MakeHostField(aUrl) + MakeHttpTarget(aUrl);
}

}  // namespace talvo
