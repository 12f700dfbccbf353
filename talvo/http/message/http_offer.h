// The strongest scheme that a server or proxy offers, and the answer to it: Basic (RFC 7617), Digest, NTLM.
#pragma once

#include <string_view>

#include "talvo/base/credentials.h"
#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/http/message/http_digest.h"

namespace talvo {

enum class EHttpScheme { NONE, BASIC, NTLM, DIGEST_MD5, DIGEST_SHA256 };  // the weakest first

// "basic", "ntlm", "digest"; "": NONE.
TALVO_API const char* HttpSchemeName(EHttpScheme aScheme);

struct CHttpOffer {
    EHttpScheme m_Scheme = EHttpScheme::NONE;
    CCmString m_strRealm;        // without the backslashes of its quotes; "" of NTLM
    CHttpDigest m_Digest;        // of Digest
    CmBool m_bStale = CM_FALSE;  // of Digest: only the nonce was refused
    CCmString m_strNtlmToken;    // of NTLM: the message of the server in base64; "": none yet

    CmBool IsDigest() const { return m_Scheme >= EHttpScheme::DIGEST_MD5; }

    // aValue (out): of Authorization or Proxy-Authorization, by Basic or Digest; each call counts as one use of the nonce.
    // CM_OK, with "": the system does not provide the hash. CM_ERROR_OUT_OF_MEMORY, CM_ERROR_INVALID_ARG: see CCmSecret.
    TALVO_API CmResult Answer(const CCmCredentials& aCredentials, std::string_view aMethod, std::string_view aUri,
                              CCmSecret& aValue);
};

// Challenges as they are merged from header lines. Unsupported ones are passed over: another algorithm, a qop without auth, a
// text that would break the header, NTLM unless aNtlm.
TALVO_API CHttpOffer ReadHttpOffer(std::string_view aChallenges, CmBool aNtlm);

// FALSE: no scheme can carry them: control characters, or a colon in the user, which the schemes use as their separator.
TALVO_API CmBool IsHttpUsable(std::string_view aUser, std::string_view aPassword);

}  // namespace talvo
