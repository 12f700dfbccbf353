// The kinds of connections. Both ends must have the same.
#pragma once

#include "talvo/connection/connection_manager.h"

namespace talvo {

// A transport, or a protocol over a transport. Pass one of the constants below.
class kind {
public:
    // From a connection type of CCmConnectionManager.
    constexpr explicit kind(uint32_t type) : type_(type) {}

    // The protocol over another transport: `package.over(tls)`. Over udp a message is one datagram, which may be lost; there is
    // no length and no reliable over it: connect and listen give CM_ERROR_NOT_IMPLEMENTED.
    constexpr kind over(kind transport) const { return kind((type_ & ~BASE) | (transport.type_ & BASE)); }
    // package only: keep-alives find a silent peer.
    constexpr kind with_keepalive() const { return kind(type_ | CCmConnectionManager::CTYPE_PDU_KEEPALIVE); }

    constexpr uint32_t type() const { return type_; }                               // for CCmConnectionManager
    constexpr bool is_plain_tcp() const { return type_ == CM_TRANSPORT_TYPE_TCP; }  // bytes, not encrypted
    constexpr bool operator==(const kind&) const = default;

private:
    static constexpr uint32_t BASE = 0xFFFF;

    uint32_t type_;
};

inline constexpr kind tcp{CM_TRANSPORT_TYPE_TCP};  // bytes; also over the socket of a path
inline constexpr kind tls{CM_TRANSPORT_TYPE_TLS};  // bytes, encrypted
inline constexpr kind udp{CM_TRANSPORT_TYPE_UDP};  // datagrams
// Whole messages over tcp, unless another transport is chosen:
inline constexpr kind length{uint32_t{CCmConnectionManager::CTYPE_PDU_LENGTH} |
                             CM_TRANSPORT_TYPE_TCP};  // each behind its length
inline constexpr kind package{uint32_t{CCmConnectionManager::CTYPE_PDU_PACKAGE} | CM_TRANSPORT_TYPE_TCP};  // with a handshake
// They survive the loss of their transport. A secret proves which client continues a connection.
inline constexpr kind reliable{static_cast<uint32_t>(CCmConnectionManager::CTYPE_PDU_RELIABLE) |
                               CCmConnectionManager::CTYPE_RECONNECT_TOKEN | CM_TRANSPORT_TYPE_TCP};

}  // namespace talvo
