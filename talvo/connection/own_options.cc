// The options of the library's connectors and acceptors, and the rooms that have them.
#include "talvo/transport/option_values.h"
#include "talvo/transport/proxy_route.h"
#include "talvo/transport/socket_settings.h"
#include "talvo/transport/tls/alpn.h"
#include "talvo/transport/tls/server_name.h"
#include "talvo/transport/tls/ssl_context.h"

namespace talvo {

namespace {

BOOL IsConnectProxy(const DWORD& aValue) { return aValue <= CM_CONNECT_PROXY_DISCOVERED; }

}  // namespace

std::span<const COptionType> GetOwnOptions() {
    using T = COptionType;
    constexpr DWORD BOTH = T::CONNECTORS | T::ACCEPTORS;
    constexpr DWORD STREAMS = T::OVER_TCP | T::OVER_OTHERS;
    static constexpr COptionType OPTIONS[] = {
        OptionOf<DWORD, CSocketSettings::IsBufferSize>(CM_OPT_TRANSPORT_SNDBUF, BOTH | STREAMS | T::OVER_UDP),
        OptionOf<DWORD, CSocketSettings::IsBufferSize>(CM_OPT_TRANSPORT_RCVBUF, BOTH | STREAMS | T::OVER_UDP),
        OptionOf<DWORD, CSocketSettings::IsReadSize>(CM_OPT_TRANSPORT_READ_SIZE, BOTH | STREAMS),
        OptionOf<CCmRefPtrT<CCmSslContext>>(CM_OPT_CONNECT_SSL_CONTEXT, BOTH | T::OVER_OTHERS),
        OptionOf<CCmString, IsServerName>(CM_OPT_CONNECT_SERVER_NAME, T::CONNECTORS | T::OVER_OTHERS),
        OptionOf<CCmString, IsAlpn>(CM_OPT_CONNECT_ALPN, BOTH | T::OVER_OTHERS),
        OptionOf<DWORD>(CM_OPT_CONNECT_HANDSHAKE_TIME, BOTH | T::OVER_OTHERS),
        OptionOf<CCmProxyRoute>(CM_OPT_CONNECT_ROUTE, T::CONNECTORS | STREAMS),
        OptionOf<DWORD, IsConnectProxy>(CM_OPT_CONNECT_PROXY, T::CONNECTORS | STREAMS),
        OptionOf<DWORD>(CM_OPT_CONNECT_MAX_HANDSHAKES, T::ACCEPTORS | T::OVER_OTHERS),
    };
    return OPTIONS;
}

}  // namespace talvo
