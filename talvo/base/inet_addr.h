// The address of an endpoint.
#pragma once

#include <netinet/in.h>

#include <string_view>

#include "talvo/base/addr_record.h"
#include "talvo/base/export.h"
#include "talvo/base/ip_bytes.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

namespace talvo {
class CAtomicAddr;
}

// An IPv4 or IPv6 address and a port in the form of the socket calls (network byte order), the path of a Unix socket, or a port
// and a pending host name. The value is resolved if and only if no name is pending; while one is pending, the address field has
// no meaning. If a look-up finds no address for the name, the value counts as resolved: the address is 255.255.255.255,
// messages show the name, and connectors and acceptors refuse it without a system call. An IPv6 address that contains an IPv4
// one (::ffff:a.b.c.d) is stored as IPv4. A plain value: do not share it between threads without a lock.
//
// IPv4 needs no memory besides the object. Copies of every other kind share one small record.
class TALVO_API CCmInetAddr {
public:
    CCmInetAddr() = default;                           // 0.0.0.0, port 0
    CCmInetAddr(const char* aHostName, CmWord aPort);  // as Set, without the result; throws if memory runs out
    explicit CCmInetAddr(const char* aIpAddrAndPort);  // likewise

    CCmInetAddr(const talvo::CIpBytes& aIp, CmWord aPort);  // no address: 0.0.0.0; throws if memory runs out

    // aHostName is a dotted address, an IPv6 literal with or without brackets, a host name, or null or "" for 0.0.0.0; aPort is
    // in host order. The forms of IPv6 are those of CIpBytes::Parse: as with getaddrinfo(), an interface belongs to link-local
    // addresses only, so "::1%lo" is a name, which the resolver refuses. CM_OK, or for a name the result of TryResolve.
    // CM_ERROR_OUT_OF_MEMORY.
    CmResult Set(const char* aHostName, CmWord aPort);

    // As Set, but without a look-up: a name stays pending. For callers whose proxy resolves names. CM_OK, also for a literal
    // address, which is no name. CM_ERROR_OUT_OF_MEMORY: nothing changes.
    CmResult SetName(const char* aHostName, CmWord aPort);

    // "host:port" or "[IPv6]:port"; without a port, as in "::1", the port is 0, with a trace line. The port is the number that
    // the text begins with, modulo 65,536, and 0 for other texts; Parse refuses them. CM_ERROR_INVALID_ARG: null.
    // CM_ERROR_NOT_AVAILABLE: the host has 256 characters or more. Both change nothing. Otherwise as Set above.
    CmResult Set(const char* aIpAddrAndPort);

    // Parses strictly "host:port", "[IPv6]:port" or "unix:path", for texts that people type. aAddr (out): the endpoint,
    // unchanged unless CM_OK. The host is four decimal numbers without leading zeros, or a name of at most 253 characters. A
    // name is labels of 1 to 63 letters, digits, "-" and "_", joined by dots; the last label is not a number, and one dot may
    // end the name. The port is a decimal number of at most five digits, 0 to 65535. A name stays pending: TryResolve or a
    // connector looks it up. The path contains a "/", or begins with "@", and has no control characters; see SetPath.
    // CM_ERROR_INVALID_ARG: every other form; aReason (out, may be null) is a description of the fault. CM_ERROR_OUT_OF_MEMORY.
    static CmResult Parse(std::string_view aHostAndPort, CCmInetAddr& aAddr, CCmString* aReason = nullptr);

    // Sets a literal address only: IPv4 in any form that inet_addr() accepts (also "1.2" and "0x7f.1"), or IPv6 as in Set; null
    // or "" is 0.0.0.0. Removes the name, pending or given. CM_ERROR_FAILURE: not an address, and nothing changes.
    // CM_ERROR_OUT_OF_MEMORY, for IPv6 only.
    CmResult SetIpAddrByString(const char* aIpAddr);

    CmResult SetIpAddrBy4Bytes(CmDword aIpAddr, CmBool aIsNetworkOrder = CM_TRUE);  // removes the name, too; CM_OK
    // Likewise; no address: 0.0.0.0. CM_OK. CM_ERROR_OUT_OF_MEMORY, for IPv6 only: nothing changes.
    CmResult SetIpAddr(const talvo::CIpBytes& aIp);
    // Host order. CM_OK. CM_ERROR_OUT_OF_MEMORY, for IPv6 only, and CM_ERROR_NOT_AVAILABLE, for a path: nothing changes.
    CmResult SetPort(CmWord aPort);

    // Sets the path of a Unix socket: of a file, or behind "@" an abstract name of the system. CM_OK. CM_ERROR_INVALID_ARG:
    // null, "" or "@". CM_ERROR_NOT_AVAILABLE: more than 107 bytes. CM_ERROR_OUT_OF_MEMORY. After a failure nothing changes.
    CmResult SetPath(const char* aPath);

    // Completes a pending name with an address that the caller has looked up; the given name stays. No address: the failed
    // look-up's 255.255.255.255. CM_OK. CM_ERROR_OUT_OF_MEMORY: nothing changes.
    CmResult SetResolvedIpAddr(const talvo::CIpBytes& aIp);
    CmResult SetResolvedIpAddr(CmDword aIpAddr) {
        return SetResolvedIpAddr(talvo::CIpBytes::OfIpv4(aIpAddr));
    }  // network order

    // Resolves a pending name from the resolver's cache; never waits. CM_OK: resolved, or no name was pending; a name that has
    // no address in the cache becomes 255.255.255.255. CM_ERROR_WOULD_BLOCK: the look-up is under way, or there is no
    // resolver. Any other result: the resolver cannot look it up. After a failure the name stays pending.
    CmResult TryResolve();

    CmWord GetPort() const;                                                   // host order; a path's is 0
    CmDword GetIpAddrIn4Bytes() const { return m_SockAddr.sin_addr.s_addr; }  // network order; 0 unless it is IPv4
    talvo::CIpBytes GetIpBytes() const;  // no address: a path, a pending name, or one without an address

    // For the socket calls: AF_INET and 16 bytes, AF_INET6 and 28, or AF_UNIX and up to 110. Cast the pointer to that of the
    // family, or to sockaddr.
    CmDword GetSize() const { return GetOther_i() ? m_pRecord->GetSize() : CmDword{sizeof m_SockAddr}; }
    CmDword GetType() const { return GetPtr()->sin_family; }  // the family
    // The socket address, GetSize() bytes.
    const sockaddr_in* GetPtr() const {
        const sockaddr* pOther = GetOther_i();
        return pOther ? reinterpret_cast<const sockaddr_in*>(pOther) : &m_SockAddr;
    }
    // Write through it only if the address is IPv4 before and after that: copies share the memory of the others, and it has
    // room for no other family. cm_from_sockaddr takes each family. A write does not change a pending name.
    sockaddr_in* GetPtr() { return const_cast<sockaddr_in*>(static_cast<const CCmInetAddr*>(this)->GetPtr()); }

    CmBool IsResolved() const { return m_strHostName.empty(); }  // no name is pending
    CCmString GetHostName() const { return m_strHostName; }      // "" when resolved
    // The pending name, the dotted address, the IPv6 address in the form of RFC 5952 with the interface behind "%", or the
    // path. "@" replaces each NUL of an abstract name; the text of a Unix socket without a path is "".
    CCmString GetIpDisplayName() const;

    // The host name that the address was made from, also after its look-up; "" for a literal address, and once the caller has
    // set another address. Certificates are checked against it. Valid until the address is set again or destroyed.
    const char* GetGivenName() const { return m_pRecord ? m_pRecord->GetGivenName() : ""; }
    // The given name if a look-up found no address for it, or "". Valid as above.
    const char* GetFailedName() const { return IsResolved() && !HasAddress() ? GetGivenName() : ""; }
    // TRUE: resolved, and the look-up found an address.
    CmBool HasAddress() const { return IsResolved() && !(m_pRecord && GetIpAddrIn4Bytes() == INADDR_NONE); }

    // aText (out): "host:port", "[IPv6]:port" or the path with a terminator, cut to aSize bytes. Allocates nothing. The host is
    // the name if there is no address.
    void Print(char* aText, CmDword aSize) const;

    // Compares family, port, address and scope, or the paths, not the names.
    bool operator==(const CCmInetAddr& aRight) const;

    // An order for map keys: IPv4, IPv6, paths. IPv4: first the stored address, read as a number of this machine, then the
    // stored port, read the same way. This is not the numeric order of dotted addresses. IPv6: the bytes of the address, then
    // scope and port.
    bool operator<(const CCmInetAddr& aRight) const;

    // aOut (out): the address in network order. FALSE: not an IPv4 address, and aOut is the result of inet_addr(). Null and ""
    // give 0 and TRUE.
    static CmBool IpAddrStringTo4Bytes(const char* aIpAddr, CmDword& aOut);
    static CCmString IpAddr4BytesToString(CmDword aIpAddr);  // network order

    // 0.0.0.0, port 0: no address given. Valid before and after every other static object.
    static const CCmInetAddr& s_InetAddrAny;

private:
    void SetName_i(const char* aHostName, CmWord aPort);
    CmResult Set_i(const char* aHostName, CmWord aPort);
    CmResult Set_i(const char* aIpAddrAndPort);
    CmResult SetIp_i(const talvo::CIpBytes& aIp, CmWord aPort);
    void SetIpv4_i(CmDword aIpAddr, CmWord aPort);
    void SetOther_i(CCmRefPtrT<talvo::CAddrRecord> aRecord, CmWord aPort);
    void SetOther_i(CCmRefPtrT<talvo::CAddrRecord> aRecord);
    static CmResult Parse_i(std::string_view aHostAndPort, CCmInetAddr& aAddr, CCmString* aReason);

    // The socket address of a family other than IPv4, or null.
    const sockaddr* GetOther_i() const { return m_pRecord ? m_pRecord->GetPtr() : nullptr; }

    friend class talvo::CAtomicAddr;
    friend CmResult cm_from_sockaddr(const sockaddr* aAddr, socklen_t aLength, CCmInetAddr& aOut);

    sockaddr_in m_SockAddr{AF_INET, 0, {0}, {}};  // of IPv4; of another family only the port
    CCmString m_strHostName;
    CCmRefPtrT<talvo::CAddrRecord> m_pRecord;  // null: plain IPv4
};

// aOut (out): an address that a socket call has filled in; a Unix socket without a path has aLength 2. CM_ERROR_INVALID_ARG:
// null, another family, or fewer bytes than the family needs. CM_ERROR_OUT_OF_MEMORY, never for IPv4. Both leave aOut
// unchanged.
TALVO_API CmResult cm_from_sockaddr(const sockaddr* aAddr, socklen_t aLength, CCmInetAddr& aOut);

// "host:port", "[IPv6]:port" or the path, as CCmInetAddr::Print without the cut.
TALVO_API CCmString cm_address_text(const CCmInetAddr& aAddr);
