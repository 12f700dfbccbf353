// Addresses as scripts write them.
#pragma once

#include <array>
#include <compare>
#include <optional>
#include <string>

namespace pac {

struct Address {
    bool m_bIpv4 = false;                     // false, IPv6, comes first in a sorted list
    std::array<unsigned char, 16> m_Bytes{};  // the first four of IPv4
    auto operator<=>(const Address&) const = default;
};

// Four decimal numbers, or IPv6 without brackets and without an interface.
std::optional<Address> ParseAddress(const std::string& aText);

// The four bytes as a number; nothing for IPv6.
std::optional<unsigned> ParseIpv4(const std::string& aText);

// aPrefix: "ADDRESS/BITS". false also for two families and for texts of another form.
bool IsInPrefix(const std::string& aText, const std::string& aPrefix);

// Sorts addresses that ";" separates: IPv6 before IPv4, each in numeric order. Nothing: one of them is none.
std::optional<std::string> SortAddresses(const std::string& aList);

}  // namespace pac
