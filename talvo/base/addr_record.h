// The rare part of an address.
#pragma once

#include <netinet/in.h>
#include <sys/un.h>

#include <memory>
#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/reference_control.h"
#include "talvo/base/types.h"

namespace talvo {

// Few IPv4 addresses need it: the given name, or the socket address of another family. The copies of an address share one
// record, also across threads, so a record never changes.
class TALVO_API CAddrRecord final : public CCmReferenceControlT<CCmMutexThread> {
public:
    explicit CAddrRecord(CCmString aGivenName);
    CAddrRecord(CCmString aGivenName, const sockaddr_in6& aAddr);
    // aLength: of the socket address, between the offset of the path and sizeof(sockaddr_un).
    CAddrRecord(const sockaddr_un& aAddr, socklen_t aLength);
    ~CAddrRecord() override;

    const char* GetGivenName() const { return m_strGivenName.c_str(); }

    // Null: only a name.
    const sockaddr* GetPtr() const {
        return m_pUnix ? reinterpret_cast<const sockaddr*>(m_pUnix.get()) : reinterpret_cast<const sockaddr*>(GetIpv6());
    }
    socklen_t GetSize() const { return m_Length; }
    const sockaddr_in6* GetIpv6() const { return m_Ipv6.sin6_family == AF_INET6 ? &m_Ipv6 : nullptr; }
    // The bytes of a path; an abstract name begins with NUL.
    std::string_view GetPath() const;

    // IPv6 before paths; then by address, scope and port, or by the path's bytes. For records with a socket address.
    int Compare(const CAddrRecord& aRight) const;

private:
    const CCmString m_strGivenName;
    const sockaddr_in6 m_Ipv6{};
    const std::unique_ptr<const sockaddr_un> m_pUnix;
    const socklen_t m_Length = 0;
};

}  // namespace talvo
