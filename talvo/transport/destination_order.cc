#include "talvo/transport/destination_order.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <tuple>
#include <utility>

#include "talvo/base/inet_addr.h"

namespace talvo {

namespace {

// The default policy table of RFC 6724. IPv4 addresses have the row of ::ffff:0:0/96.
struct CPolicy {
    BYTE m_Prefix[16];
    int m_nBits;
    int m_nPrecedence;
    int m_nLabel;
};

constexpr CPolicy POLICIES[] = {
    {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 128, 50, 0},  // loopback
    {{}, 96, 1, 3},
    {{0x20, 0x01}, 32, 5, 5},
    {{0x20, 0x02}, 16, 30, 2},
    {{0x3F, 0xFE}, 16, 1, 12},
    {{0xFE, 0xC0}, 10, 1, 11},
    {{0xFC}, 7, 3, 13},
    {{}, 0, 40, 1},
};
constexpr CPolicy IPV4_POLICY = {{}, 96, 35, 4};

enum EScope { LINK = 2, SITE = 5, GLOBAL = 14 };

BOOL HasPrefix(const CIpBytes& aIp, const BYTE* aPrefix, int aBits) {
    const auto stBytes = static_cast<size_t>(aBits / 8);
    if (std::memcmp(aIp.m_Bytes, aPrefix, stBytes) != 0)
        return FALSE;
    const int nMask = 0xFF00 >> aBits % 8 & 0xFF;
    return nMask == 0 || (aIp.m_Bytes[stBytes] & nMask) == aPrefix[stBytes];
}

const CPolicy& PolicyOf(const CIpBytes& aIp) {
    if (aIp.m_byFamily == 4)
        return IPV4_POLICY;
    return *std::find_if(std::begin(POLICIES), std::end(POLICIES),
                         [&](const CPolicy& policy) { return HasPrefix(aIp, policy.m_Prefix, policy.m_nBits); });
}

EScope ScopeOf(const CIpBytes& aIp) {
    if (aIp.m_byFamily == 4)
        return aIp.m_Bytes[0] == 127 || (aIp.m_Bytes[0] == 169 && aIp.m_Bytes[1] == 254) ? LINK : GLOBAL;
    const in6_addr ip = aIp.GetIpv6();
    if (IN6_IS_ADDR_LOOPBACK(&ip) || IN6_IS_ADDR_LINKLOCAL(&ip))
        return LINK;
    return IN6_IS_ADDR_SITELOCAL(&ip) ? SITE : GLOBAL;
}

// Smaller is better: the rules in their order.
using CRank = std::tuple<bool, bool, int, int>;

CRank RankOf(const CIpBytes& aDestination, const CIpBytes& aSource) {
    const CPolicy& policy = PolicyOf(aDestination);
    return {ScopeOf(aDestination) != ScopeOf(aSource), policy.m_nLabel != PolicyOf(aSource).m_nLabel, -policy.m_nPrecedence,
            ScopeOf(aDestination)};
}

std::vector<CIpBytes> Alternate(const std::vector<CIpBytes>& aAddresses) {
    std::vector<CIpBytes> first;
    std::vector<CIpBytes> second;
    for (const CIpBytes& ip : aAddresses)
        (ip.m_byFamily == aAddresses.front().m_byFamily ? first : second).push_back(ip);
    std::vector<CIpBytes> mixed;
    for (size_t i = 0; i < std::max(first.size(), second.size()); ++i) {
        if (i < first.size())
            mixed.push_back(first[i]);
        if (i < second.size())
            mixed.push_back(second[i]);
    }
    return mixed;
}

}  // namespace

CIpBytes FindSource(const CIpBytes& aDestination) {
    constexpr WORD ANY_PORT = 9;
    const CCmInetAddr addr(aDestination, ANY_PORT);
    const HANDLE fd = socket(static_cast<int>(addr.GetType()), SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == CM_INVALID_HANDLE)
        return {};
    sockaddr_storage source{};
    socklen_t length = sizeof source;
    CCmInetAddr addrSource;
    const BOOL bRoute = connect(fd, reinterpret_cast<const sockaddr*>(addr.GetPtr()), addr.GetSize()) == 0 &&
                        getsockname(fd, reinterpret_cast<sockaddr*>(&source), &length) == 0 &&
                        cm_from_sockaddr(reinterpret_cast<const sockaddr*>(&source), length, addrSource) == CM_OK;
    close(fd);
    return bRoute ? addrSource.GetIpBytes() : CIpBytes();
}

std::vector<CIpBytes> OrderDestinations(std::vector<CIpBytes> aAddresses, CSourceFinder aFindSource) {
    if (std::none_of(aAddresses.begin(), aAddresses.end(), [](const CIpBytes& ip) { return ip.m_byFamily == 6; }))
        return aAddresses;
    std::vector<std::pair<CRank, CIpBytes>> ranked;
    for (const CIpBytes& ip : aAddresses) {
        if (const CIpBytes source = aFindSource(ip))
            ranked.emplace_back(RankOf(ip, source), ip);
    }
    if (ranked.empty())
        return aAddresses;
    std::stable_sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<CIpBytes> ordered;
    for (const auto& [rank, ip] : ranked)
        ordered.push_back(ip);
    return Alternate(ordered);
}

}  // namespace talvo
