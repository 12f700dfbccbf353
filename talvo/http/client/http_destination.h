// The end of a connection of the pool.
#pragma once

#include "talvo/base/credentials.h"
#include "talvo/base/inet_addr.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/transport/proxy_route.h"
#include "talvo/transport/tls/ssl_context.h"

namespace talvo {

// A connection serves the requests for its destination, one after the other.
struct CHttpDestination {
    CCmString m_strHost;                     // as it is looked up; of requests in absolute form the proxy's
    CmWord m_wPort = 0;                      // host order
    CCmProxyServer m_Proxy{};                // gets requests in absolute form, and the host is its own; DIRECT: none
    CCmInetAddr m_AddrConnectTo{};           // s_InetAddrAny: the host and port
    CCmRefPtrT<CCmSslContext> m_pContext{};  // of TLS to the host; null: plain TCP
    CCmProxyRoute m_Tunnel{};                // the servers of a tunnel to the host; empty: none

    CCmCredentials m_Identity{};  // the user of connections that NTLM authenticates; empty: requests have users

    // Equal destinations, and no others, have the same key. It is valid as long as the context lives, and does not reveal
    // credentials.
    CCmString MakeKey() const;
};

}  // namespace talvo
