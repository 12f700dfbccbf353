#include "talvo/proxy/discovery/proxy_origin.h"

#include <algorithm>

#include "talvo/base/ascii.h"
#include "talvo/base/inet_addr.h"
#include "talvo/http/message/http_url.h"

namespace talvo {

namespace {

constexpr size_t LONGEST_NAME = 254;  // with the dot that may end it

BOOL IsNameByte(char aByte) {
    return (aByte >= 'a' && aByte <= 'z') || (aByte >= '0' && aByte <= '9') || aByte == '-' || aByte == '_' || aByte == '.' ||
           static_cast<unsigned char>(aByte) > 127;
}

BOOL IsName(const CCmString& aHost) {
    return !aHost.empty() && aHost.size() <= LONGEST_NAME && std::ranges::all_of(aHost, IsNameByte);
}

// Scheme and authority. The rest decides nothing, may be long, and CCmHttpUrl needs a "/" before a query.
std::string_view CutPath(std::string_view aUrl) {
    const size_t stScheme = aUrl.find("://");
    const size_t stBegin = stScheme == std::string_view::npos ? 0 : stScheme + 3;
    return aUrl.substr(0, aUrl.find_first_of("/?#", stBegin));
}

// The literal address in aHost, also in the short and hexadecimal forms of IPv4; an interface is skipped.
CIpBytes ParseAddress(const CCmString& aHost) {
    CIpBytes ip;
    DWORD dwIpv4 = 0;
    if (aHost.find(':') != CCmString::npos)
        CIpBytes::Parse(std::string_view(aHost).substr(0, aHost.find('%')), ip);
    else if (aHost[0] >= '0' && aHost[0] <= '9' && CCmInetAddr::IpAddrStringTo4Bytes(aHost.c_str(), dwIpv4))
        ip = CIpBytes::OfIpv4(dwIpv4);
    return ip;
}

}  // namespace

BOOL IsInNetwork(const CIpBytes& aIp, const CIpBytes& aNetwork, DWORD aBits) {
    if (!aIp || aIp.m_byFamily != aNetwork.m_byFamily)
        return FALSE;
    const DWORD dwBytes = aBits / 8;
    if (!std::equal(aIp.m_Bytes, aIp.m_Bytes + dwBytes, aNetwork.m_Bytes))
        return FALSE;
    return aBits % 8 == 0 || ((aIp.m_Bytes[dwBytes] ^ aNetwork.m_Bytes[dwBytes]) >> (8 - aBits % 8)) == 0;
}

CmResult CProxyOrigin::Parse(std::string_view aUrl, CProxyOrigin& aOrigin) {
    CCmHttpUrl url;
    const std::string_view strPlace = CutPath(aUrl);  // with an "@", CCmHttpUrl would take a part of it for the host
    if (strPlace.find('@') != std::string_view::npos || !url.Init(strPlace) || url.GetScheme() == "file")
        return CM_ERROR_INVALID_ARG;
    CProxyOrigin origin;
    origin.m_strScheme = url.GetScheme();
    origin.m_strHost = to_lower(url.GetHostName());
    origin.m_wPort = url.GetPort();
    origin.m_Ip = ParseAddress(origin.m_strHost);
    if (origin.m_Ip)
        origin.m_strHost = origin.m_Ip.GetText();
    else if (!IsName(origin.m_strHost))
        return CM_ERROR_INVALID_ARG;
    const BOOL bDefault = origin.m_wPort == (origin.m_strScheme == "http" ? 80 : 443);
    origin.m_strUrl =
        origin.m_strScheme + "://" + (origin.m_Ip.m_byFamily == 6 ? "[" + origin.m_strHost + "]" : origin.m_strHost);
    origin.m_strUrl += bDefault ? "/" : ":" + std::to_string(origin.m_wPort) + "/";
    aOrigin = std::move(origin);
    return CM_OK;
}

BOOL CProxyOrigin::IsLoopback() const {
    struct CNetwork {
        const char* m_pAddress;
        DWORD m_dwBits;
    };
    constexpr CNetwork NETWORKS[] = {{"127.0.0.0", 8}, {"::1", 128}, {"169.254.0.0", 16}, {"fe80::", 10}};
    if (!m_Ip) {
        std::string_view name = m_strHost;
        if (name.ends_with('.'))
            name.remove_suffix(1);
        return name == "localhost" || name.ends_with(".localhost");
    }
    return std::ranges::any_of(NETWORKS, [&](const CNetwork& a) {
        CIpBytes network;
        return CIpBytes::Parse(a.m_pAddress, network) && IsInNetwork(m_Ip, network, a.m_dwBits);
    });
}

}  // namespace talvo
