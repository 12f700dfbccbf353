// The base types of the library, and the rooms that make them.
#include "talvo/transport/base_types.h"
#include "talvo/transport/tcp/acceptor_tcp.h"
#include "talvo/transport/tcp/connector_tcp.h"
#include "talvo/transport/tls/acceptor_ssl.h"
#include "talvo/transport/tls/connector_ssl.h"
#include "talvo/transport/udp/acceptor_udp.h"
#include "talvo/transport/udp/connector_udp.h"

namespace talvo {

std::span<const CBaseType> GetOwnBaseTypes() {
    static constexpr CBaseType TYPES[] = {
        {CM_TRANSPORT_TYPE_TCP, {CCmConnectorTcp::Make, CCmAcceptorTcp::Make}, TRUE},
        {CM_TRANSPORT_TYPE_UDP, {CCmConnectorUdp::Make, CCmAcceptorUdp::Make}},
        {CM_TRANSPORT_TYPE_TLS_1_2, {CCmConnectorSsl::Make, CCmAcceptorSsl::Make}, TRUE},
        {CM_TRANSPORT_TYPE_TLS_1_3, {CCmConnectorSsl::Make, CCmAcceptorSsl::Make}, TRUE},
        {CM_TRANSPORT_TYPE_TLS, {CCmConnectorSsl::Make, CCmAcceptorSsl::Make}, TRUE},
        {CM_TRANSPORT_TYPE_PROXY, {}, TRUE},
    };
    return TYPES;
}

}  // namespace talvo
