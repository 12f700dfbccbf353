// The address of a datagram's source as a key.
#pragma once

#include <sys/socket.h>

#include <array>
#include <compare>

#include "talvo/base/export.h"
#include "talvo/base/keyed_hash.h"

namespace talvo {

// An address of either family, and its port. An IPv4 address has the form ::ffff:a.b.c.d, in which an IPv6 socket also reports
// it.
struct TALVO_API CPeerKey {
    uint64_t m_ullHigh = 0;
    uint64_t m_ullLow = 0;
    uint64_t m_ullScopeAndPort = 0;

    // aAddr: of AF_INET or AF_INET6.
    static CPeerKey Of(const sockaddr& aAddr);

    auto operator<=>(const CPeerKey&) const = default;
};

struct CPeerKeyHash {
    size_t operator()(const CPeerKey& aKey) const {
        return m_Hash(std::array{aKey.m_ullHigh, aKey.m_ullLow, aKey.m_ullScopeAndPort});
    }
    CKeyedHash m_Hash;
};

}  // namespace talvo
