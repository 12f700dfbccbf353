// Hosts of URLs and of the field Host: IPv6 addresses stand in brackets (RFC 3986, section 3.2.2).
#pragma once

#include <optional>
#include <string_view>

#include "talvo/base/ip_bytes.h"

namespace talvo {

// "[address]" at the front of an authority. The zone of a link-local address follows it as "%25" and letters, digits, "-", ".",
// "_" and "~" (RFC 6874).
struct CHttpIpLiteral {
    CIpBytes m_Address;       // without a scope
    std::string_view m_Zone;  // "" if there is none
    std::string_view m_Port;  // "", or the text from the colon on

    // The host for a look-up: the address in its shortest form, then "%" and the zone. An IPv4-mapped address is in dotted
    // form.
    CCmString GetHost() const;
};

// nullopt: aAuthority does not begin with such a literal, another text than a colon and a port follows it, or the port has
// brackets. The digits of the port are not checked. Allocates nothing.
std::optional<CHttpIpLiteral> parse_ip_literal(std::string_view aAuthority);

// TRUE: the host of a URL is an IPv6 address. No name contains a colon.
inline BOOL is_ipv6_host(std::string_view aHost) { return aHost.find(':') != std::string_view::npos; }

// The host of a URL in the form of an authority: a name as it is, an IPv6 address in brackets.
CCmString bracket_host(const CCmString& aHost);

}  // namespace talvo
