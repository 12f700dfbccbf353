#include "tools/pac/addresses.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>
#include <vector>

namespace pac {

namespace {

constexpr size_t MAX_LIST = 1000;  // addresses to sort

std::string Trim(const std::string& aText) {
    const size_t first = aText.find_first_not_of(" \t");
    return first == aText.npos ? "" : aText.substr(first, aText.find_last_not_of(" \t") - first + 1);
}

bool HasSameBits(const Address& aLeft, const Address& aRight, size_t aBits) {
    const size_t whole = aBits / 8;
    if (std::memcmp(aLeft.m_Bytes.data(), aRight.m_Bytes.data(), whole) != 0)
        return false;
    const int nMask = 0xFF00 >> aBits % 8 & 0xFF;
    return nMask == 0 || ((aLeft.m_Bytes[whole] ^ aRight.m_Bytes[whole]) & nMask) == 0;
}

}  // namespace

std::optional<Address> ParseAddress(const std::string& aText) {
    Address address;
    if (aText.find('\0') != aText.npos)
        return {};
    address.m_bIpv4 = inet_pton(AF_INET, aText.c_str(), address.m_Bytes.data()) == 1;
    if (!address.m_bIpv4 && inet_pton(AF_INET6, aText.c_str(), address.m_Bytes.data()) != 1)
        return {};
    return address;
}

std::optional<unsigned> ParseIpv4(const std::string& aText) {
    const auto address = ParseAddress(aText);
    if (!address || !address->m_bIpv4)
        return {};
    unsigned uNumber = 0;
    for (size_t i = 0; i < 4; ++i)
        uNumber = uNumber << 8 | address->m_Bytes[i];
    return uNumber;
}

bool IsInPrefix(const std::string& aText, const std::string& aPrefix) {
    const size_t slash = aPrefix.find('/');
    if (slash == aPrefix.npos)
        return false;
    const auto address = ParseAddress(aText);
    const auto network = ParseAddress(aPrefix.substr(0, slash));
    size_t bits = 0;
    const char* pEnd = aPrefix.data() + aPrefix.size();
    const auto [pRead, error] = std::from_chars(aPrefix.data() + slash + 1, pEnd, bits);
    if (!address || !network || address->m_bIpv4 != network->m_bIpv4 || error != std::errc() || pRead != pEnd)
        return false;
    return bits <= (address->m_bIpv4 ? 32u : 128u) && HasSameBits(*address, *network, bits);
}

std::optional<std::string> SortAddresses(const std::string& aList) {
    std::vector<std::pair<Address, std::string>> addresses;
    for (size_t at = 0; at <= aList.size();) {
        const size_t end = std::min(aList.find(';', at), aList.size());
        std::string strText = Trim(aList.substr(at, end - at));
        at = end + 1;
        const auto address = ParseAddress(strText);
        if (!address || addresses.size() == MAX_LIST)
            return {};
        addresses.emplace_back(*address, std::move(strText));
    }
    std::stable_sort(addresses.begin(), addresses.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::string strSorted;
    for (const auto& [address, strText] : addresses)
        strSorted += (strSorted.empty() ? "" : ";") + strText;
    return strSorted;
}

}  // namespace pac
