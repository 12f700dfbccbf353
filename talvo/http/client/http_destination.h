// The end of a connection of the pool.
#pragma once

#include "talvo/base/inet_addr.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/transport/tls/ssl_context.h"

namespace talvo {

// A connection serves the requests for its destination, one after the other.
struct CHttpDestination {
    CCmString m_strHost;                     // as it is looked up
    WORD m_wPort = 0;                        // host order
    CCmInetAddr m_AddrConnectTo{};           // s_InetAddrAny: the host and port
    CCmRefPtrT<CCmSslContext> m_pContext{};  // of TLS; null: plain TCP

    // Equal destinations, and no others, have the same key. It is valid as long as the context lives.
    CCmString MakeKey() const;
};

}  // namespace talvo
