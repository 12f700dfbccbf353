// The part of a URL that decides its route.
#pragma once

#include "talvo/base/ip_bytes.h"
#include "talvo/base/result.h"

namespace talvo {

// Scheme, host and port. No text of it has a path, a query or user information.
struct TALVO_API CProxyOrigin {
    CCmString m_strScheme;  // "http" or "https"
    CCmString m_strHost;    // in lower case; an address in its shortest form, without brackets and interface
    WORD m_wPort = 0;       // never 0
    CIpBytes m_Ip;          // of a literal address; none: the host is a name
    CCmString m_strUrl;     // "scheme://host/", with ":port" if it is not the default, IPv6 in brackets

    // aOrigin (out): that of aUrl. CM_ERROR_INVALID_ARG: another scheme, user information, or a host that is neither an address
    // nor made of letters, digits, "-", "_", "." and bytes above 127, up to 254 of them. Throws std::bad_alloc.
    static CmResult Parse(std::string_view aUrl, CProxyOrigin& aOrigin);

    // localhost and the names below it, 127.0.0.0/8, ::1, 169.254.0.0/16, fe80::/10.
    BOOL IsLoopback() const;
};

// TRUE: the first aBits of both are equal; the families must be.
BOOL IsInNetwork(const CIpBytes& aIp, const CIpBytes& aNetwork, DWORD aBits);

}  // namespace talvo
