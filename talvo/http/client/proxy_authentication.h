// A client's answers to a proxy that requires credentials.
#pragma once

#include "talvo/http/message/http_auth_state.h"
#include "talvo/transport/proxy_credentials_choice.h"

namespace talvo {

class IProxyAuthenticationUser {
public:
    // The end of a wait, from the loop. CM_OK: repeat the request with Authorize. Other results as OnChallenges. The object may
    // be deleted inside.
    virtual void OnProxyAuthentication(CmResult aResult) = 0;

protected:
    ~IProxyAuthenticationUser() = default;
};

// The authentication of one user, such as a handshake or a channel, to one proxy. It knows no socket: the user sends and
// repeats requests.
//
//    Start();                                            before the first request
//    OnConnection(authenticated);                        for each new or reused connection
//    Authorize(method, target, value);                   for each request: send value, if any, as Proxy-Authorization
//    a 407 came:          OnChallenges(...)              CM_OK: send the request again; WOULD_BLOCK: when notified
//    any other reply:     OnAccepted()
//
// Nothing is sent before the proxy asks. The process remembers its challenge to one user: the next users of this proxy
// send credentials at once, with a growing nonce count, unless a question to the user would be necessary. Credentials are those
// of the route, stored ones, then the asker's; each set is tried once, a stale nonce is replaced three times. Schemes, the
// strongest first: Digest with SHA-256, Digest with MD5, NTLM if it is allowed, Basic. Used in one thread.
class TALVO_API CProxyAuthentication final : private ICmProxyCredentialsSink {
public:
    // aUser is not owned. aProxy: CCmProxyServer::GetText. aFromRoute: the credentials in the route; an empty user: none.
    CProxyAuthentication(IProxyAuthenticationUser& aUser, const CCmString& aProxy, const CCmCredentials& aFromRoute);
    CProxyAuthentication(const CProxyAuthentication&) = delete;
    CProxyAuthentication& operator=(const CProxyAuthentication&) = delete;

    // Takes up the offer that the process remembers of this proxy, if there are credentials without a question.
    // CM_ERROR_OUT_OF_MEMORY.
    CmResult Start();

    // The next request goes over another connection than the last one. aAuthenticated: it is one of the pool that has served
    // GetIdentity before. Without a call the connection is new.
    void OnConnection(CmBool aAuthenticated) { m_State.OnConnection(aAuthenticated); }

    // aValue (out): of Proxy-Authorization for the next request; "": none. aTarget is the request target as it is sent,
    // "host:port" for CONNECT. CM_OK, CM_ERROR_OUT_OF_MEMORY.
    CmResult Authorize(std::string_view aMethod, std::string_view aTarget, CCmSecret& aValue);

    // A 407 came with these values of Proxy-Authenticate, merged by line feeds; "": none. So does a 401 to CONNECT, with which
    // some proxies refuse credentials. aStaysOpen: the connection can carry another request. CM_OK: repeat the request with the
    // new value of Authorize. CM_ERROR_WOULD_BLOCK: the user is asked for credentials; one OnProxyAuthentication follows, not
    // inside this call. CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE: give up. CM_ERROR_OUT_OF_MEMORY.
    CmResult OnChallenges(std::string_view aChallenges, CmBool aStaysOpen);

    // Any other reply came.
    void OnAccepted();

    // TRUE: the repeated request must go over the connection of the 407, or fail.
    CmBool NeedsSameConnection() const { return m_State.NeedsSameConnection(); }

    // NTLM: the credentials for which a connection, once authenticated, may be reused, and for no others. Empty: any
    // connection to the proxy that no NTLM has authenticated will do. It may change in Start, OnChallenges and
    // OnProxyAuthentication.
    CCmCredentials GetIdentity() const { return m_State.IsNtlm() ? m_Choice.GetCurrent() : CCmCredentials(); }

    // No call follows.
    void Cancel() { m_Choice.Cancel(); }

private:
    void OnProxyCredentials(CmResult aReason, const CCmCredentials& aCredentials) override;
    CmResult Choose_i();
    CmBool IsUsable_i() const;

    IProxyAuthenticationUser& m_User;
    CProxyCredentialsChoice m_Choice;
    CHttpAuthState m_State;
    CmBool m_bUnproved = CM_FALSE;  // the offer is of a 407 whose answer no reply has confirmed yet
};

}  // namespace talvo
