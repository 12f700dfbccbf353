#include "talvo/transport/udp/peer_key.h"

#include <netinet/in.h>

#include <cstring>

namespace talvo {

CPeerKey CPeerKey::Of(const sockaddr& aAddr) {
    CPeerKey key;
    if (aAddr.sa_family == AF_INET) {
        const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(aAddr);
        key.m_ullLow = uint64_t{ipv4.sin_addr.s_addr} << 32 | uint64_t{htonl(0x0000FFFF)};
        key.m_ullScopeAndPort = ipv4.sin_port;
        return key;
    }
    const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(aAddr);
    std::memcpy(&key.m_ullHigh, ipv6.sin6_addr.s6_addr, sizeof key.m_ullHigh);
    std::memcpy(&key.m_ullLow, ipv6.sin6_addr.s6_addr + sizeof key.m_ullHigh, sizeof key.m_ullLow);
    key.m_ullScopeAndPort = uint64_t{ipv6.sin6_scope_id} << 16 | ipv6.sin6_port;
    return key;
}

}  // namespace talvo
