#include "talvo/base/addr_record.h"

#include <compare>
#include <cstddef>
#include <cstring>
#include <tuple>
#include <utility>

#include "talvo/base/live_counter.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CAddrRecord");

}  // namespace

CAddrRecord::CAddrRecord(CCmString aGivenName) : m_strGivenName(std::move(aGivenName)) { ++s_Live; }

CAddrRecord::CAddrRecord(CCmString aGivenName, const sockaddr_in6& aAddr)
    : m_strGivenName(std::move(aGivenName)), m_Ipv6(aAddr), m_Length(sizeof aAddr) {
    ++s_Live;
}

CAddrRecord::CAddrRecord(const sockaddr_un& aAddr, socklen_t aLength)
    : m_pUnix(std::make_unique<const sockaddr_un>(aAddr)), m_Length(aLength) {
    ++s_Live;
}

CAddrRecord::~CAddrRecord() { --s_Live; }

std::string_view CAddrRecord::GetPath() const {
    if (!m_pUnix)
        return {};
    const size_t stLength = m_Length - offsetof(sockaddr_un, sun_path);
    const BOOL bAbstract = stLength > 0 && m_pUnix->sun_path[0] == '\0';
    return {m_pUnix->sun_path, bAbstract ? stLength : strnlen(m_pUnix->sun_path, stLength)};
}

int CAddrRecord::Compare(const CAddrRecord& aRight) const {
    if (const int nKind = static_cast<int>(m_pUnix != nullptr) - static_cast<int>(aRight.m_pUnix != nullptr))
        return nKind;
    if (m_pUnix)
        return GetPath().compare(aRight.GetPath());
    const sockaddr_in6& right = aRight.m_Ipv6;
    if (const int nBytes = std::memcmp(&m_Ipv6.sin6_addr, &right.sin6_addr, sizeof right.sin6_addr))
        return nBytes;
    const auto order =
        std::tuple(m_Ipv6.sin6_scope_id, ntohs(m_Ipv6.sin6_port)) <=> std::tuple(right.sin6_scope_id, ntohs(right.sin6_port));
    return order < 0 ? -1 : order > 0;
}

}  // namespace talvo
