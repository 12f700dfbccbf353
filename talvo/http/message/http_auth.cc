#include "talvo/http/message/http_auth.h"

#include "talvo/http/message/ntlm_permission.h"

namespace talvo {

CmResult CHttpAuthenticator::SetCredentials(std::string_view aUser, std::string_view aPassword) {
    if (!IsHttpUsable(aUser, aPassword))
        return CM_ERROR_INVALID_ARG;
    CCmCredentials credentials;
    const CmResult rv = credentials.Set(aUser, aPassword);
    if (rv != CM_OK)
        return rv;
    Forget();
    m_bCredentials = TRUE;
    m_Credentials = credentials;
    return CM_OK;
}

BOOL CHttpAuthenticator::OnChallenges(std::string_view aValue, BOOL aEndToEnd, BOOL aStaysOpen) {
    if (!m_bCredentials)
        return FALSE;
    const BOOL bNtlm = aEndToEnd && !m_Credentials.m_User.IsEmpty() && IsNtlmAllowed();
    return m_State.OnChallenges(aValue, bNtlm, aStaysOpen) == CHttpAuthState::ANSWER;
}

CmResult CHttpAuthenticator::Authorize(std::string_view aMethod, std::string_view aUri, CCmSecret& aValue) {
    return m_State.Authorize(m_Credentials, aMethod, aUri, aValue);
}

}  // namespace talvo
