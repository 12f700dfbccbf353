// The base types of the library, and the rooms that make them.
#include "talvo/transport/base_types.h"
#include "talvo/transport/tcp/acceptor_tcp.h"
#include "talvo/transport/tcp/connector_tcp.h"
#include "talvo/transport/udp/acceptor_udp.h"
#include "talvo/transport/udp/connector_udp.h"

namespace talvo {

std::span<const CBaseType> GetOwnBaseTypes() {
    static constexpr CBaseType TYPES[] = {
        {CM_TRANSPORT_TYPE_TCP, {CCmConnectorTcp::Make, CCmAcceptorTcp::Make}},
        {CM_TRANSPORT_TYPE_UDP, {CCmConnectorUdp::Make, CCmAcceptorUdp::Make}},
        {4, {}},       // TLS: no makers yet
        {8, {}},       // as 4
        {12, {}},      // as 4
        {0x8000, {}},  // through a proxy server: no makers yet
    };
    return TYPES;
}

}  // namespace talvo
