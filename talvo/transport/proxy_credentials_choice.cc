#include "talvo/transport/proxy_credentials_choice.h"

#include <algorithm>
#include <utility>

#include "talvo/base/with_memory.h"

namespace talvo {

namespace {

constexpr size_t MAX_REFUSED = 4;  // sets; other users may store more while this request runs

}  // namespace

CProxyCredentialsChoice::CProxyCredentialsChoice(ICmProxyCredentialsSink& aSink, const CCmString& aProxy,
                                                 const CCmCredentials& aFromRoute)
    : m_Sink(aSink), m_FromRoute(aFromRoute) {
    m_Question.m_strProxy = aProxy;
}

CProxyCredentialsChoice::~CProxyCredentialsChoice() { Cancel(); }

CmResult CProxyCredentialsChoice::Choose(const CCmString& aRealm, const char* aScheme) {
    const CmResult rv = Find_i(aRealm, aScheme, this);
    const BOOL bKnown = rv == CM_OK || rv == CM_ERROR_WOULD_BLOCK || rv == CM_ERROR_OUT_OF_MEMORY;
    return bKnown ? rv : CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE;
}

CmResult CProxyCredentialsChoice::ChooseKnown(const CCmString& aRealm, const char* aScheme) {
    const CmResult rv = Find_i(aRealm, aScheme, nullptr);
    return rv == CM_OK || rv == CM_ERROR_OUT_OF_MEMORY ? rv : CM_ERROR_NOT_FOUND;
}

CmResult CProxyCredentialsChoice::Find_i(const CCmString& aRealm, const char* aScheme, ICmProxyCredentialsSink* aSink) {
    if (m_Current)
        return CM_OK;
    if (!WithMemory([&] {
            m_Question.m_strRealm = aRealm;
            m_Question.m_strScheme = aScheme;
        }))
        return CM_ERROR_OUT_OF_MEMORY;
    m_bFromRoute = m_FromRoute && !WasRefused_i(m_FromRoute);
    if (m_bFromRoute) {
        m_Current = m_FromRoute;
        return CM_OK;
    }
    ICmProxyCredentials* pSource = ICmProxyCredentials::Get();
    if (!pSource || m_Refused.size() >= MAX_REFUSED)
        return CM_ERROR_NOT_FOUND;
    if (m_bAskedAgain)
        aSink = nullptr;
    CCmCredentials found;
    const CmResult rv = pSource->GetCredentials(m_Question, found, aSink);
    if (rv == CM_OK && WasRefused_i(found))
        return CM_ERROR_NOT_FOUND;
    if (rv == CM_OK)
        m_Current = found;
    if (rv == CM_ERROR_WOULD_BLOCK) {
        m_bWaiting = TRUE;
        m_bAskedAgain = m_Question.m_bRefused;
    }
    return rv;
}

BOOL CProxyCredentialsChoice::WasRefused_i(const CCmCredentials& aCredentials) const {
    return std::find(m_Refused.begin(), m_Refused.end(), aCredentials) != m_Refused.end();
}

// Without memory no other set is tried: the route's could be chosen again.
void CProxyCredentialsChoice::OnRefused() {
    if (!m_Current)
        return;
    const CCmCredentials refused = std::exchange(m_Current, {});
    if (!WithMemory([&] { m_Refused.push_back(refused); }))
        m_FromRoute = {};
    ICmProxyCredentials* pSource = ICmProxyCredentials::Get();
    if (pSource && !m_bFromRoute)
        pSource->Forget(m_Question, refused);
    m_Question.m_bRefused = TRUE;
}

void CProxyCredentialsChoice::Cancel() {
    ICmProxyCredentials* pSource = ICmProxyCredentials::Get();
    if (std::exchange(m_bWaiting, FALSE) && pSource)
        pSource->Cancel(this);
}

void CProxyCredentialsChoice::OnProxyCredentials(CmResult aReason, const CCmCredentials& aCredentials) {
    m_bWaiting = FALSE;
    const BOOL bNew = aReason == CM_OK && !WasRefused_i(aCredentials);
    if (bNew)
        m_Current = aCredentials;
    m_Sink.OnProxyCredentials(bNew || aReason != CM_OK ? aReason : CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, m_Current);
}

}  // namespace talvo
