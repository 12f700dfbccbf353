#include "talvo/http/message/http_auth_state.h"

#include <utility>

namespace talvo {

namespace {

constexpr DWORD MAX_STALE = 3;

}  // namespace

CHttpAuthState::EVerdict CHttpAuthState::OnChallenges(std::string_view aChallenges, BOOL aNtlm, BOOL) {
    CHttpOffer offer = ReadHttpOffer(aChallenges, aNtlm);
    if (offer.m_Scheme == EHttpScheme::NONE)
        return HOPELESS;
    const BOOL bSame = offer.m_Scheme == m_Offer.m_Scheme && offer.m_strRealm == m_Offer.m_strRealm;
    const BOOL bTried = m_bTried && (!m_bEarly || (bSame && offer.m_Scheme == EHttpScheme::BASIC));
    if (bTried && offer.m_bStale && m_dwStale++ == MAX_STALE)
        return HOPELESS;
    const EVerdict verdict = bTried && !offer.m_bStale ? REFUSED : ANSWER;
    m_Offer = std::move(offer);
    m_bTried = m_bEarly = FALSE;
    return verdict;
}

void CHttpAuthState::TakeUp(const CHttpOffer& aOffer) {
    m_Offer = aOffer;
    m_bEarly = TRUE;
}

void CHttpAuthState::OnConnection(BOOL) {}

CmResult CHttpAuthState::Authorize(const CCmCredentials& aCredentials, std::string_view aMethod, std::string_view aUri,
                                   CCmSecret& aValue) {
    aValue.Clear();
    if (!HasOffer())
        return CM_OK;
    m_bTried = TRUE;
    return m_Offer.Answer(aCredentials, aMethod, aUri, aValue);
}

}  // namespace talvo
