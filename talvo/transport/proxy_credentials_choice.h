// The order in which one request to a proxy tries credentials.
#pragma once

#include <vector>

#include "talvo/transport/proxy_credentials.h"

namespace talvo {

// For one request to one proxy, such as a handshake: the credentials of its route, then stored ones, then those of the asker.
// Each set is tried once. After a refusal the user is asked once more at most. Used in one thread.
class TALVO_API CProxyCredentialsChoice final : private ICmProxyCredentialsSink {
public:
    // aSink is not owned; it is notified once for each CM_ERROR_WOULD_BLOCK. aProxy: see CCmProxyQuestion. aFromRoute: none if
    // its user is empty.
    CProxyCredentialsChoice(ICmProxyCredentialsSink& aSink, const CCmString& aProxy, const CCmCredentials& aFromRoute);
    CProxyCredentialsChoice(const CProxyCredentialsChoice&) = delete;
    CProxyCredentialsChoice& operator=(const CProxyCredentialsChoice&) = delete;
    ~CProxyCredentialsChoice();  // cancels the wait

    // CM_OK: GetCurrent has the set to try; the same one until it is refused. CM_ERROR_WOULD_BLOCK: the sink is notified, and
    // with CM_OK GetCurrent has the set. CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE: none is left. CM_ERROR_OUT_OF_MEMORY.
    CmResult Choose(const CCmString& aRealm, const char* aScheme);
    // The same without asking the user: credentials to send before the proxy asks. CM_OK, CM_ERROR_NOT_FOUND,
    // CM_ERROR_OUT_OF_MEMORY.
    CmResult ChooseKnown(const CCmString& aRealm, const char* aScheme);

    // The proxy refused GetCurrent. Stored ones are forgotten.
    void OnRefused();

    void Cancel();
    const CCmCredentials& GetCurrent() const { return m_Current; }
    const CCmString& GetProxy() const { return m_Question.m_strProxy; }

private:
    void OnProxyCredentials(CmResult aReason, const CCmCredentials& aCredentials) override;
    CmResult Find_i(const CCmString& aRealm, const char* aScheme, ICmProxyCredentialsSink* aSink);
    CmBool WasRefused_i(const CCmCredentials& aCredentials) const;

    ICmProxyCredentialsSink& m_Sink;
    CCmProxyQuestion m_Question;
    CCmCredentials m_FromRoute;
    CCmCredentials m_Current;
    std::vector<CCmCredentials> m_Refused;
    CmBool m_bFromRoute = CM_FALSE;   // m_Current is
    CmBool m_bAskedAgain = CM_FALSE;  // the user was asked after a refusal
    CmBool m_bWaiting = CM_FALSE;
};

}  // namespace talvo
