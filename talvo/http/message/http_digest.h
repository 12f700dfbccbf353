// One answer of Digest authentication (RFC 7616, RFC 2069).
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/http/message/http_digest_hash.h"

namespace talvo {

// The parts of one Digest answer. The texts are those between the quotes.
struct CHttpDigest {
    EHttpHash m_Hash = EHttpHash::MD5;
    CCmString m_strAlgorithm;  // as the server wrote it, to send it back; "": none
    CCmString m_strRealm;
    CCmString m_strNonce;
    CCmString m_strOpaque;
    CmBool m_bOpaque = CM_FALSE;
    CmBool m_bQopAuth = CM_FALSE;  // FALSE: the form without qop, which has neither count nor client nonce
    CmDword m_dwCount = 0;
    CCmString m_strClientNonce;

    // The value of Authorization or Proxy-Authorization; "": the system does not provide the hash.
    TALVO_API CCmString Answer(std::string_view aUser, std::string_view aPassword, std::string_view aMethod,
                               std::string_view aUri) const;
};

}  // namespace talvo
