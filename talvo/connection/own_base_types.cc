// The base types that the library knows, and which rooms make them.
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
        {4, {}},       // TLS: nobody makes it yet,
        {8, {}},       // nor
        {12, {}},      // these,
        {0x8000, {}},  // nor connections through a proxy
    };
    return TYPES;
}

}  // namespace talvo
