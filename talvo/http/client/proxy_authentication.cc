#include "talvo/http/client/proxy_authentication.h"

#include <utility>

#include "talvo/http/client/proxy_offers.h"
#include "talvo/http/message/http_memory.h"
#include "talvo/http/message/ntlm_permission.h"

namespace talvo {

CProxyAuthentication::CProxyAuthentication(IProxyAuthenticationUser& aUser, const CCmString& aProxy,
                                           const CCmCredentials& aFromRoute)
    : m_User(aUser), m_Choice(*this, aProxy, aFromRoute) {}

CmResult CProxyAuthentication::Start() {
    return ResultWithMemory([&] {
        CHttpOffer offer;
        if (!CProxyOffers::Find(m_Choice.GetProxy(), FALSE, offer) || (offer.m_Scheme == EHttpScheme::NTLM && !IsNtlmAllowed()))
            return CM_OK;
        const CmResult rv = m_Choice.ChooseKnown(offer.m_strRealm, HttpSchemeName(offer.m_Scheme));
        if (rv == CM_OK && IsUsable_i())
            m_State.TakeUp(offer);
        return rv == CM_ERROR_NOT_FOUND ? CM_OK : rv;
    });
}

// A nonce of the process is counted there. One of this user's own 407 is not shared before it is proved: counts that overtake
// each other on several connections look stale.
CmResult CProxyAuthentication::Authorize(std::string_view aMethod, std::string_view aTarget, CCmSecret& aValue) {
    return ResultWithMemory([&] {
        CHttpOffer shared;
        if (!m_bUnproved && m_State.GetOffer().IsDigest() && CProxyOffers::Find(m_Choice.GetProxy(), TRUE, shared) &&
            shared.IsDigest())
            m_State.TakeUp(shared);
        return m_State.Authorize(m_Choice.GetCurrent(), aMethod, aTarget, aValue);
    });
}

CmResult CProxyAuthentication::OnChallenges(std::string_view aChallenges, BOOL aStaysOpen) {
    return ResultWithMemory([&] {
        const CHttpAuthState::EVerdict verdict = m_State.OnChallenges(aChallenges, IsNtlmAllowed(), aStaysOpen);
        if (verdict == CHttpAuthState::HOPELESS)
            return CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE;
        if (verdict == CHttpAuthState::REFUSED)
            m_Choice.OnRefused();
        m_bUnproved = TRUE;
        return Choose_i();
    });
}

// Credentials that no scheme can carry count as refused.
CmResult CProxyAuthentication::Choose_i() {
    for (;;) {
        const CHttpOffer& offer = m_State.GetOffer();
        const CmResult rv = m_Choice.Choose(offer.m_strRealm, HttpSchemeName(offer.m_Scheme));
        if (rv != CM_OK || IsUsable_i())
            return rv;
        m_Choice.OnRefused();
    }
}

BOOL CProxyAuthentication::IsUsable_i() const {
    const CCmCredentials& credentials = m_Choice.GetCurrent();
    return IsHttpUsable(credentials.m_User.Get(), credentials.m_Password.Get());
}

void CProxyAuthentication::OnAccepted() {
    m_State.OnAccepted();
    if (std::exchange(m_bUnproved, FALSE))
        WithMemory([&] { CProxyOffers::Store(m_Choice.GetProxy(), m_State.GetOffer()); });
}

// The user may delete this object inside.
void CProxyAuthentication::OnProxyCredentials(CmResult aReason, const CCmCredentials&) {
    CmResult rv = aReason;
    if (rv == CM_OK && !IsUsable_i()) {
        m_Choice.OnRefused();
        rv = ResultWithMemory([&] { return Choose_i(); });
    }
    if (rv != CM_ERROR_WOULD_BLOCK)
        m_User.OnProxyAuthentication(rv);
}

}  // namespace talvo
