#include "talvo/http/message/http_auth_state.h"

#include <utility>

namespace talvo {

namespace {

constexpr DWORD MAX_STALE = 3;
constexpr DWORD MAX_NEGOTIATIONS = 6;  // one for each set of credentials, and some for connections that came to an end

}  // namespace

CHttpAuthState::EVerdict CHttpAuthState::OnChallenges(std::string_view aChallenges, BOOL aNtlm, BOOL aStaysOpen) {
    if (aChallenges.empty() && !IsNtlm() && std::exchange(m_bTried, FALSE))
        return REFUSED;
    CHttpOffer offer = ReadHttpOffer(aChallenges, aNtlm);
    if (offer.m_Scheme == EHttpScheme::NONE)
        return HOPELESS;
    if (offer.m_Scheme == EHttpScheme::NTLM && IsNtlm() && m_Ntlm.GetStep() == CNtlmSession::NEGOTIATED)
        return GoOnWithNtlm_i(offer, aStaysOpen);
    const BOOL bSame = offer.m_Scheme == m_Offer.m_Scheme && offer.m_strRealm == m_Offer.m_strRealm;
    const BOOL bTried = m_bTried && (!m_bEarly || (bSame && offer.m_Scheme == EHttpScheme::BASIC) || IsNtlm());
    if (bTried && offer.m_bStale && m_dwStale++ == MAX_STALE)
        return HOPELESS;
    const EVerdict verdict = bTried && !offer.m_bStale ? REFUSED : ANSWER;
    m_Offer = std::move(offer);
    m_Ntlm.Begin();
    m_bTried = m_bEarly = FALSE;
    return verdict;
}

// The server has closed the connection, has sent no message or a malformed one: another attempt would end the same way.
CHttpAuthState::EVerdict CHttpAuthState::GoOnWithNtlm_i(const CHttpOffer& aOffer, BOOL aStaysOpen) {
    const BOOL bGood = aStaysOpen && m_dwNegotiations <= MAX_NEGOTIATIONS && m_Ntlm.TakeChallenge(aOffer.m_strNtlmToken);
    return bGood ? ANSWER : HOPELESS;
}

void CHttpAuthState::TakeUp(const CHttpOffer& aOffer) {
    m_Offer = aOffer;
    m_bEarly = TRUE;
}

void CHttpAuthState::OnAccepted() {
    m_dwStale = m_dwNegotiations = 0;
    if (m_Ntlm.GetStep() == CNtlmSession::NEGOTIATED)
        m_Ntlm.Finish();
    if (IsNtlm())
        m_bTried = FALSE;  // a later refusal is the end of the connection's authentication
}

void CHttpAuthState::OnConnection(BOOL aAuthenticated) {
    if (IsNtlm() && aAuthenticated)
        m_Ntlm.Finish();
    else
        m_Ntlm.Begin();
    if (IsNtlm())
        m_bTried = FALSE;
}

CmResult CHttpAuthState::Authorize(const CCmCredentials& aCredentials, std::string_view aMethod, std::string_view aUri,
                                   CCmSecret& aValue) {
    aValue.Clear();
    if (!HasOffer())
        return CM_OK;
    const CNtlmSession::EStep step = m_Ntlm.GetStep();
    m_bTried = m_bTried || !IsNtlm() || step == CNtlmSession::CHALLENGED;
    m_dwNegotiations += IsNtlm() && (step == CNtlmSession::BEGIN || step == CNtlmSession::NEGOTIATED);
    const CmResult rv = IsNtlm() ? m_Ntlm.Next(aCredentials, aValue) : m_Offer.Answer(aCredentials, aMethod, aUri, aValue);
    return rv == CM_ERROR_OUT_OF_MEMORY ? rv : CM_OK;
}

}  // namespace talvo
