// A client's answer to a server that requires credentials.
#pragma once

#include <string_view>

#include "talvo/http/message/http_auth_state.h"

namespace talvo {

// The credentials for one origin and their state. Uses the strongest scheme that a server offers: Digest with SHA-256, Digest
// with MD5, NTLM if it is allowed, Basic. A value, of one thread.
class TALVO_API CHttpAuthenticator {
public:
    // CM_ERROR_INVALID_ARG: see IsHttpUsable, or longer than CCmSecret::MAX_LENGTH. CM_ERROR_OUT_OF_MEMORY.
    CmResult SetCredentials(std::string_view aUser, std::string_view aPassword);
    CmBool HasCredentials() const { return m_bCredentials; }
    void Forget() { *this = CHttpAuthenticator(); }

    // A 401 came with these challenges. aEndToEnd: no proxy that may share its connections stands between; only then NTLM is
    // possible. aStaysOpen: the connection can carry another request. TRUE: try again, with the result of Authorize. FALSE:
    // there are no credentials, or none for the server's schemes, or they were refused before. A nonce that is only stale is
    // replaced a few times.
    CmBool OnChallenges(std::string_view aValue, CmBool aEndToEnd = CM_FALSE, CmBool aStaysOpen = CM_FALSE);
    // Any other answer came.
    void OnAccepted() { m_State.OnAccepted(); }

    // NTLM authenticates a connection for its user. The next request goes over another connection than the last one;
    // aAuthenticated: it has served GetIdentity before.
    void OnConnection(CmBool aAuthenticated) { m_State.OnConnection(aAuthenticated); }
    // TRUE: the repeated request must go over the connection of the 401, or fail.
    CmBool NeedsSameConnection() const { return m_State.NeedsSameConnection(); }
    // NTLM: the credentials for which a connection, once authenticated, may be reused, and for no others. Empty: any connection
    // that no NTLM has authenticated will do.
    CCmCredentials GetIdentity() const { return m_State.IsNtlm() ? m_Credentials : CCmCredentials(); }

    // aValue (out): of Authorization for the next request; each call counts as one request. "" before the first challenge.
    // CM_OK, CM_ERROR_OUT_OF_MEMORY.
    CmResult Authorize(std::string_view aMethod, std::string_view aUri, CCmSecret& aValue);

private:
    CmBool m_bCredentials = CM_FALSE;
    CCmCredentials m_Credentials;
    CHttpAuthState m_State;
};

}  // namespace talvo
