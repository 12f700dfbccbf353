// The properties of a TLS connection.
#pragma once

#include <vector>

#include "talvo/base/types.h"

// The versions of TLS; older ones are not offered.
enum ECmTlsVersion : CmDword { CM_TLS_1_2 = 0x0303, CM_TLS_1_3 = 0x0304 };

// The value of CM_OPT_TRANSPORT_SSL_INFO.
struct CCmSslInfo {
    CmDword m_dwVersion = 0;    // ECmTlsVersion
    CCmString m_strCipher;      // "TLS_AES_256_GCM_SHA384"
    CCmString m_strAlpn;        // "" if none was agreed on
    CCmString m_strServerName;  // that a client has asked for; "" if none
    // The certificates that the peer has sent (DER), its own one first. A server has only the own one after a resumption.
    std::vector<CCmString> m_Chain;
    CmBool m_bResumed = CM_FALSE;   // the session was resumed: no certificates were exchanged
    CmBool m_bVerified = CM_FALSE;  // the peer's certificate was checked and is good
    CCmString m_strNotVerified;     // why not: "self-signed certificate", "not checked"
};
