#include "talvo/base/ip_bytes.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <charconv>
#include <cstdio>
#include <cstring>

namespace talvo {

namespace {

// A copy with a terminator, for the system's functions; "", which none of them accepts, if it does not fit or has a NUL.
template <size_t SIZE>
struct CTerminated {
    explicit CTerminated(std::string_view aText) {
        if (aText.size() < SIZE && aText.find('\0') == std::string_view::npos)
            m_szText[aText.copy(m_szText, SIZE - 1)] = '\0';
    }
    char m_szText[SIZE] = {};
};

// The index of an interface; 0: there is none.
DWORD ParseScope(std::string_view aText) {
    DWORD dwScope = 0;
    char szInterface[IF_NAMESIZE];
    const auto [pEnd, error] = std::from_chars(aText.data(), aText.data() + aText.size(), dwScope);
    const bool bNumber = error == std::errc() && pEnd == aText.data() + aText.size();
    if (bNumber && if_indextoname(dwScope, szInterface))
        return dwScope;
    return if_nametoindex(CTerminated<IF_NAMESIZE>(aText).m_szText);
}

BOOL HasScope(const in6_addr& aIpAddr) { return IN6_IS_ADDR_LINKLOCAL(&aIpAddr) || IN6_IS_ADDR_MC_LINKLOCAL(&aIpAddr); }

}  // namespace

CIpBytes CIpBytes::OfIpv4(DWORD aIpAddr) {
    CIpBytes ip;
    ip.m_byFamily = 4;
    std::memcpy(ip.m_Bytes, &aIpAddr, sizeof aIpAddr);
    return ip;
}

CIpBytes CIpBytes::OfIpv6(const in6_addr& aIpAddr, DWORD aScope) {
    if (IN6_IS_ADDR_V4MAPPED(&aIpAddr)) {
        DWORD dwIpAddr;
        std::memcpy(&dwIpAddr, aIpAddr.s6_addr + 12, sizeof dwIpAddr);
        return OfIpv4(dwIpAddr);
    }
    CIpBytes ip;
    ip.m_byFamily = 6;
    std::memcpy(ip.m_Bytes, &aIpAddr, sizeof aIpAddr);
    ip.m_dwScope = HasScope(aIpAddr) ? aScope : 0;
    return ip;
}

BOOL CIpBytes::Parse(std::string_view aText, CIpBytes& aOut) {
    const size_t stPercent = aText.find('%');
    const CTerminated<INET6_ADDRSTRLEN> address(aText.substr(0, stPercent));
    in6_addr ip6;
    if (inet_pton(AF_INET6, address.m_szText, &ip6) == 1) {
        DWORD dwScope = 0;
        if (stPercent != std::string_view::npos) {
            dwScope = HasScope(ip6) ? ParseScope(aText.substr(stPercent + 1)) : 0;
            if (dwScope == 0)
                return FALSE;
        }
        aOut = OfIpv6(ip6, dwScope);
        return TRUE;
    }
    in_addr ip4;
    if (stPercent != std::string_view::npos || inet_pton(AF_INET, address.m_szText, &ip4) != 1)
        return FALSE;
    aOut = OfIpv4(ip4.s_addr);
    return TRUE;
}

DWORD CIpBytes::GetIpv4() const {
    DWORD dwIpAddr = 0;
    if (m_byFamily == 4)
        std::memcpy(&dwIpAddr, m_Bytes, sizeof dwIpAddr);
    return dwIpAddr;
}

in6_addr CIpBytes::GetIpv6() const {
    in6_addr ip{};
    if (m_byFamily == 6)
        std::memcpy(&ip, m_Bytes, sizeof ip);
    return ip;
}

CCmString CIpBytes::GetText() const {
    char szText[TEXT_SIZE];
    Print(szText);
    return szText;
}

void CIpBytes::Print(char* aText) const {
    *aText = '\0';
    if (m_byFamily == 0)
        return;
    inet_ntop(m_byFamily == 4 ? AF_INET : AF_INET6, m_Bytes, aText, INET6_ADDRSTRLEN);
    if (m_dwScope == 0)
        return;
    char szInterface[IF_NAMESIZE];
    const size_t stAddress = std::strlen(aText);
    if (if_indextoname(m_dwScope, szInterface))
        std::snprintf(aText + stAddress, TEXT_SIZE - stAddress, "%%%s", szInterface);
    else
        std::snprintf(aText + stAddress, TEXT_SIZE - stAddress, "%%%u", m_dwScope);
}

}  // namespace talvo
