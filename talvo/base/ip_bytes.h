// An IP address of either family, without a port.
#pragma once

#include <netinet/in.h>

#include <compare>
#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// A small plain value, for records, hosts files and tables. An IPv6 address that contains an IPv4 one (::ffff:a.b.c.d) becomes
// that IPv4 address in every function below, so each host has one value.
struct TALVO_API CIpBytes {
    CmByte m_byFamily = 0;    // 4, 6, or 0: no address
    CmByte m_Bytes[16] = {};  // network order; IPv4 has four, and zeros behind them
    CmDword m_dwScope = 0;    // the interface index of a link-local IPv6 address; 0: none

    static CIpBytes OfIpv4(CmDword aIpAddr);  // network order
    static CIpBytes OfIpv6(const in6_addr& aIpAddr, CmDword aScope = 0);

    // Parses "a.b.c.d", or an IPv6 literal without brackets. A link-local one may end with "%" and an interface, by name or
    // number. FALSE: another form, or no such interface; aOut (out) is then unchanged. Allocates nothing.
    static CmBool Parse(std::string_view aText, CIpBytes& aOut);

    explicit operator bool() const { return m_byFamily != 0; }
    CmDword GetIpv4() const;   // network order; 0 unless the family is 4
    in6_addr GetIpv6() const;  // "::" unless the family is 6

    // The dotted form, or that of RFC 5952, with the interface behind "%"; "" without an address.
    CCmString GetText() const;
    // The same for a buffer of TEXT_SIZE bytes, with a terminator. Allocates nothing.
    static constexpr size_t TEXT_SIZE = INET6_ADDRSTRLEN + 16;
    void Print(char* aText) const;

    // IPv4 before IPv6, then by bytes, then by scope.
    auto operator<=>(const CIpBytes&) const = default;
};

}  // namespace talvo
