// A client's answer to a server that requires credentials: Basic (RFC 7617) and Digest (RFC 7616, RFC 2069).
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/http/message/http_digest_hash.h"

namespace talvo {

struct CHttpChallenge;

// The parts of one Digest answer. The texts are those between the quotes.
struct CHttpDigest {
    EHttpHash m_Hash = EHttpHash::MD5;
    CCmString m_strAlgorithm;  // as the server wrote it, to send it back; "": none
    CCmString m_strRealm;
    CCmString m_strNonce;
    CCmString m_strOpaque;
    BOOL m_bOpaque = FALSE;
    BOOL m_bQopAuth = FALSE;  // FALSE: the form without qop, which has neither count nor client nonce
    DWORD m_dwCount = 0;
    CCmString m_strClientNonce;

    // The value of Authorization; "": the system does not provide the hash.
    TALVO_API CCmString Answer(const CCmString& aUser, const CCmString& aPassword, std::string_view aMethod,
                               std::string_view aUri) const;
};

// The credentials for one origin and their state. Uses the strongest scheme that a server offers: Digest with SHA-256, Digest
// with MD5, Basic. A value, of one thread.
class TALVO_API CHttpAuthenticator {
public:
    // CM_ERROR_INVALID_ARG: control characters in either, or a colon in aUser, which every scheme uses as its separator.
    CmResult SetCredentials(const CCmString& aUser, const CCmString& aPassword);
    BOOL HasCredentials() const { return m_bCredentials; }
    void Forget() { *this = CHttpAuthenticator(); }

    // A 401 came with these challenges. TRUE: try again, with the result of Authorize. FALSE: there are no credentials, or none
    // for the server's schemes, or they were refused before. A nonce that is only stale is replaced a few times.
    BOOL OnChallenges(std::string_view aValue);

    // The value of Authorization for the next request; each call counts as one request. "" before the first challenge.
    CCmString Authorize(std::string_view aMethod, std::string_view aUri);

private:
    enum EScheme { NONE, BASIC, DIGEST_MD5, DIGEST_SHA256 };

    EScheme Judge_i(const CHttpChallenge& aChallenge) const;
    void Take_i(const CHttpChallenge& aChallenge);

    BOOL m_bCredentials = FALSE;
    CCmString m_strUser;
    CCmString m_strPassword;
    EScheme m_Scheme = NONE;
    CHttpDigest m_Digest;
    DWORD m_dwStale = 0;  // replaced nonces
};

}  // namespace talvo
