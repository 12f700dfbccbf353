// An IPv4 endpoint.
#pragma once

#include <netinet/in.h>

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// Address and port as the socket calls take them (network byte order), or port and a host name that still waits for its
// address. Resolved exactly when no name is pending; while one is, the address field means nothing. An address that a look-up
// gave to a name without addresses counts as resolved: it is 255.255.255.255, keeps the name for messages, and connectors and
// acceptors refuse it before they ask the system. A plain value: not shared between threads without a lock.
class TALVO_API CCmInetAddr {
public:
    CCmInetAddr() = default;                           // 0.0.0.0, port 0
    CCmInetAddr(const char* aHostName, WORD aPort);    // as Set, dropping the result, but without memory it throws
    explicit CCmInetAddr(const char* aIpAddrAndPort);  // likewise
    explicit CCmInetAddr(const sockaddr_in& aAddr) : m_SockAddr(aAddr) {}

    // A dotted address, a host name, or null or "" for 0.0.0.0; the port in host order. CM_OK, or for a name what TryResolve
    // says. CM_ERROR_OUT_OF_MEMORY.
    CmResult Set(const char* aHostName, WORD aPort);

    // "host:port"; without a colon the port is 0 and a line says so. CM_ERROR_INVALID_ARG: null. CM_ERROR_NOT_AVAILABLE: the
    // host has 256 characters or more. Both change nothing. Otherwise as the Set above.
    CmResult Set(const char* aIpAddrAndPort);

    // Strictly "host:port", for texts that people type. The host is four decimal numbers without leading zeros, or a name:
    // labels of 1 to 63 letters, digits, "-" and "_", joined by dots, at most 253 characters, the last label no number; one dot
    // may end it. The port is a decimal number of at most five digits, 0 to 65535. CM_OK: aAddr is filled; a name stays pending
    // and nothing is asked, TryResolve or a connector does that. CM_ERROR_INVALID_ARG: aAddr is unchanged, and aReason, which
    // may be null, gets the fault in words. Every other form is refused today; later ones begin with "[" or hold a "/".
    // CM_ERROR_OUT_OF_MEMORY: aAddr is unchanged.
    static CmResult Parse(std::string_view aHostAndPort, CCmInetAddr& aAddr, CCmString* aReason = nullptr);

    // A literal address only, in any form that inet_addr() takes ("1.2", "0x7f.1" are such); null or "" is 0.0.0.0. Ends a
    // pending name. CM_ERROR_FAILURE, and nothing changes: not an address.
    CmResult SetIpAddrByString(const char* aIpAddr);

    CmResult SetIpAddrBy4Bytes(DWORD aIpAddr, BOOL aIsNetworkOrder = TRUE);  // ends a pending name; CM_OK
    CmResult SetPort(WORD aPort);                                            // host order; CM_OK

    // Completes a pending name from what the name resolver has cached; never waits. CM_OK: resolved, or nothing to do; a name
    // that is known to have no address becomes 255.255.255.255. CM_ERROR_WOULD_BLOCK: the look-up is under way, or there is no
    // resolver; anything else: the resolver cannot look it up. The name stays pending then.
    CmResult TryResolve();

    WORD GetPort() const;                                                   // host order
    DWORD GetIpAddrIn4Bytes() const { return m_SockAddr.sin_addr.s_addr; }  // network order
    DWORD GetSize() const { return sizeof(m_SockAddr); }
    DWORD GetType() const { return m_SockAddr.sin_family; }

    // For the socket calls; what they write through the pointer leaves a pending name as it is.
    const sockaddr_in* GetPtr() const { return &m_SockAddr; }
    sockaddr_in* GetPtr() { return &m_SockAddr; }

    BOOL IsResolved() const { return m_bNoAddress || m_strHostName.empty(); }
    CCmString GetHostName() const;       // "" when resolved
    CCmString GetIpDisplayName() const;  // the pending name, or the dotted address

    // The name that a look-up found no address for, or "".
    CCmString GetFailedName() const;
    // Resolved, and to an address.
    BOOL HasAddress() const { return IsResolved() && !HasFailed_i(); }

    // Writes "host:port" with a zero behind it, cut to aSize bytes; allocates nothing. The host is the name, if there is one,
    // with or without an address.
    void Print(char* aText, DWORD aSize) const;

    // Family, port and address; a pending name is not compared.
    bool operator==(const CCmInetAddr& aRight) const;

    // For map keys: by the address as stored, read as a number of this machine, then by the port read the same way. Not the
    // numeric order of dotted addresses.
    bool operator<(const CCmInetAddr& aRight) const;

    // FALSE: not an address, and aOut is what inet_addr() made of it. Null and "" give 0 and TRUE.
    static BOOL IpAddrStringTo4Bytes(const char* aIpAddr, DWORD& aOut);
    static CCmString IpAddr4BytesToString(DWORD aIpAddr);  // network order

    // 0.0.0.0, port 0: no address given. Usable before and after every other static object.
    static const CCmInetAddr& s_InetAddrAny;

private:
    CmResult Set_i(const char* aHostName, WORD aPort);
    CmResult Set_i(const char* aIpAddrAndPort);
    static CmResult Parse_i(std::string_view aHostAndPort, CCmInetAddr& aAddr, CCmString* aReason);
    BOOL HasFailed_i() const { return m_bNoAddress && m_SockAddr.sin_addr.s_addr == INADDR_NONE; }

    sockaddr_in m_SockAddr{AF_INET, 0, {0}, {}};
    CCmString m_strHostName;
    BOOL m_bNoAddress = FALSE;  // a look-up has given 255.255.255.255 to the name
};
