// The slot by which a handshake with a proxy asks for the user's credentials, independent of where they are kept.
#pragma once

#include "talvo/base/credentials.h"
#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// The question of a proxy.
struct CCmProxyQuestion {
    CCmString m_strProxy;   // its normalised URI without credentials and path: "http://proxy.example:3128"; port always given
    CCmString m_strRealm;   // as the proxy sent it; "" for SOCKS
    CCmString m_strScheme;  // "basic", "digest", "ntlm", "socks"
    CmBool m_bRefused = CM_FALSE;  // the proxy refused the credentials of this request before
};

// Waits for credentials.
class TALVO_API ICmProxyCredentialsSink {
public:
    // The end of one wait, from the loop of the thread that asked. CM_OK: aCredentials are to be tried, and they are stored.
    // CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE: the user gave up, did not answer in time, or the asker's thread has ended. The
    // sink may ask again, cancel other waits and delete itself inside.
    virtual void OnProxyCredentials(CmResult aReason, const CCmCredentials& aCredentials) = 0;

protected:
    ~ICmProxyCredentialsSink() = default;
};

// Keeps the credentials of proxies and asks the user for them. Any thread.
class TALVO_API ICmProxyCredentials {
public:
    // aCredentials (out): stored ones for the proxy and realm, in which case the sink is not notified: CM_OK.
    // CM_ERROR_WOULD_BLOCK: the user is asked, once for all that wait for this proxy and realm. aSink is notified once, in the
    // calling thread; it is not owned and must cancel before it is deleted. One sink has one wait at a time.
    // CM_ERROR_NOT_FOUND: nothing is stored, and there is no asker, or aSink is null, which asks for stored ones only.
    // CM_ERROR_NULL_POINTER: the calling thread has no event queue or no timers. CM_ERROR_NOT_AVAILABLE: 64 questions are open.
    // CM_ERROR_ALREADY_INITIALIZED: the sink waits already. CM_ERROR_OUT_OF_MEMORY.
    virtual CmResult GetCredentials(const CCmProxyQuestion& aQuestion, CCmCredentials& aCredentials,
                                    ICmProxyCredentialsSink* aSink) = 0;

    // Ends the wait without a notification. Called in the thread that asked. CM_OK. CM_ERROR_NOT_FOUND: it did not wait.
    virtual CmResult Cancel(ICmProxyCredentialsSink* aSink) = 0;

    // The proxy refused these credentials: they are forgotten if they are still the stored ones.
    virtual void Forget(const CCmProxyQuestion& aQuestion, const CCmCredentials& aCredentials) = 0;

    // TRUE: GetCredentials may find an answer for aProxy in any realm, stored or by asking. A SOCKS client offers a password
    // then.
    virtual CmBool MayHaveCredentials(const CCmString& aProxy) = 0;

    virtual ~ICmProxyCredentials();

    // The process's one; null until one is installed. Not owned.
    static ICmProxyCredentials* Get();
    static void Set(ICmProxyCredentials* aCredentials);
};
