#include "talvo/http/message/http_authority.h"

#include <algorithm>

namespace talvo {

namespace {

constexpr std::string_view ZONE_MARK = "%25";
constexpr std::string_view ZONE_LETTERS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";

// aText: the part behind the address.
BOOL ParseZone(std::string_view aText, CHttpIpLiteral& aLiteral) {
    if (aText.empty())
        return TRUE;
    const in6_addr address = aLiteral.m_Address.GetIpv6();
    if (!IN6_IS_ADDR_LINKLOCAL(&address) || !aText.starts_with(ZONE_MARK) || aText == ZONE_MARK)
        return FALSE;
    aLiteral.m_Zone = aText.substr(ZONE_MARK.size());
    return aLiteral.m_Zone.find_first_not_of(ZONE_LETTERS) == std::string_view::npos;
}

}  // namespace

CCmString CHttpIpLiteral::GetHost() const {
    CCmString strHost = m_Address.GetText();
    if (!m_Zone.empty())
        strHost.append("%").append(m_Zone);
    return strHost;
}

std::optional<CHttpIpLiteral> parse_ip_literal(std::string_view aAuthority) {
    const size_t stEnd = aAuthority.find(']');
    if (!aAuthority.starts_with('[') || stEnd == std::string_view::npos || aAuthority.find_last_of("[]") != stEnd)
        return std::nullopt;
    const std::string_view inside = aAuthority.substr(1, stEnd - 1);
    const std::string_view address = inside.substr(0, inside.find('%'));
    CHttpIpLiteral literal;
    literal.m_Port = aAuthority.substr(stEnd + 1);
    if (!literal.m_Port.empty() && literal.m_Port.front() != ':')
        return std::nullopt;
    if (!is_ipv6_host(address) || !CIpBytes::Parse(address, literal.m_Address))
        return std::nullopt;
    return ParseZone(inside.substr(address.size()), literal) ? std::optional(literal) : std::nullopt;
}

CCmString bracket_host(const CCmString& aHost) {
    if (!is_ipv6_host(aHost))
        return aHost;
    const size_t stZone = std::min(aHost.find('%'), aHost.size());
    CCmString strHost = "[" + aHost.substr(0, stZone);
    if (stZone < aHost.size())
        strHost.append(ZONE_MARK).append(aHost, stZone + 1);
    return strHost + "]";
}

}  // namespace talvo
