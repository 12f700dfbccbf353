// One proxy server, or the direct way.
#pragma once

#include <string_view>

#include "talvo/base/credentials.h"
#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// The protocol that a proxy server speaks.
enum ECmProxyKind : CmDword {
    CM_PROXY_DIRECT = 0,   // no server: a connection to the peer itself
    CM_PROXY_HTTP = 1,     // CONNECT; http also in absolute form
    CM_PROXY_HTTPS = 2,    // the same inside TLS to the proxy, whose certificate is verified
    CM_PROXY_SOCKS4 = 3,   // IPv4 addresses only: names are looked up here
    CM_PROXY_SOCKS4A = 4,  // names and IPv4 addresses
    CM_PROXY_SOCKS5 = 5    // names and addresses of both families (RFC 1928)
};

// A plain value; copies share its credentials. Any thread may copy and read it. Two servers are equal if kind, host and port
// are: the credentials are not a part of the identity, and no text of this class has them.
class TALVO_API CCmProxyServer {
public:
    static constexpr size_t LONGEST_HOST = 253;  // characters

    CCmProxyServer() = default;  // CM_PROXY_DIRECT

    // aServer (out), unchanged unless CM_OK: a server without credentials. aHost: a name of letters, digits, "-", "_" and ".",
    // or an address of either family, without brackets; aPort 0: the default of the kind, 80, 443 or 1080. DIRECT has neither
    // of them. CM_ERROR_INVALID_ARG: no such kind, or no such host. CM_ERROR_OUT_OF_MEMORY.
    static CmResult Make(ECmProxyKind aKind, std::string_view aHost, CmWord aPort, CCmProxyServer& aServer);

    // Replaces the credentials; an empty user removes them. CM_ERROR_INVALID_ARG: a control character, or DIRECT.
    // CM_ERROR_OUT_OF_MEMORY. After a failure nothing changes.
    CmResult SetCredentials(std::string_view aUser, std::string_view aPassword);

    // The kind, whole or in part.
    CmBool IsDirect() const { return m_Kind == CM_PROXY_DIRECT; }
    CmBool IsSocks() const { return m_Kind >= CM_PROXY_SOCKS4; }

    ECmProxyKind GetKind() const { return m_Kind; }  // the protocol
    // In lower case; an address in its shortest form and without brackets. "" of DIRECT.
    const CCmString& GetHost() const { return m_strHost; }
    CmWord GetPort() const { return m_wPort; }  // 0 of DIRECT

    // "socks5://host:1080", "http://[::1]:3128", "direct://": never with credentials. Also the name of the server for
    // cm_proxy_set_credentials. May throw std::bad_alloc.
    CCmString GetText() const;

    CmBool HasCredentials() const { return static_cast<bool>(m_Credentials); }  // a user is set
    // Empty: there are none.
    const CCmCredentials& GetCredentials() const { return m_Credentials; }
    std::string_view GetUser() const { return m_Credentials.m_User.Get(); }          // "": there is none
    std::string_view GetPassword() const { return m_Credentials.m_Password.Get(); }  // "": there is none

    // Compares kind, host and port.
    bool operator==(const CCmProxyServer& aRight) const {
        return m_Kind == aRight.m_Kind && m_wPort == aRight.m_wPort && m_strHost == aRight.m_strHost;
    }

private:
    ECmProxyKind m_Kind = CM_PROXY_DIRECT;
    CCmString m_strHost;
    CmWord m_wPort = 0;
    CCmCredentials m_Credentials;
};
