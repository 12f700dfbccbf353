// An IPv4 endpoint.
#pragma once

#include <netinet/in.h>

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/base/reference_control.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

namespace talvo {

// The part of an address that few addresses have. The copies of an address share one record, also across threads, so a record
// never changes.
class TALVO_API CAddrRecord final : public CCmReferenceControlT<CCmMutexThread> {
public:
    explicit CAddrRecord(const char* aGivenName);
    ~CAddrRecord() override;

    const char* GetGivenName() const { return m_strGivenName.c_str(); }

private:
    const CCmString m_strGivenName;
};

}  // namespace talvo

// An address and port in the form of the socket calls (network byte order), or a port and a pending host name. The value is
// resolved if and only if no name is pending; while one is pending, the address field has no meaning. If a look-up finds no
// address for the name, the value counts as resolved: the address is 255.255.255.255, messages show the name, and
// connectors and acceptors refuse it without a system call. A plain value: do not share it between threads without a lock.
class TALVO_API CCmInetAddr {
public:
    CCmInetAddr() = default;                           // 0.0.0.0, port 0
    CCmInetAddr(const char* aHostName, WORD aPort);    // as Set, without the result; throws if memory runs out
    explicit CCmInetAddr(const char* aIpAddrAndPort);  // likewise
    explicit CCmInetAddr(const sockaddr_in& aAddr) : m_SockAddr(aAddr) {}

    // aHostName is a dotted address, a host name, or null or "" for 0.0.0.0; aPort is in host order. CM_OK, or for a name the
    // result of TryResolve. CM_ERROR_OUT_OF_MEMORY.
    CmResult Set(const char* aHostName, WORD aPort);

    // As Set, but without a look-up: a name stays pending. For callers whose proxy resolves names. CM_OK, also for a literal
    // address, which is no name. CM_ERROR_OUT_OF_MEMORY: nothing changes.
    CmResult SetName(const char* aHostName, WORD aPort);

    // "host:port"; without a colon the port is 0, with a trace line. CM_ERROR_INVALID_ARG: null. CM_ERROR_NOT_AVAILABLE: the
    // host has 256 characters or more. Both change nothing. Otherwise as Set above.
    CmResult Set(const char* aIpAddrAndPort);

    // Parses strictly "host:port", for texts that people type. aAddr (out): the endpoint, unchanged unless CM_OK. The host is
    // four decimal numbers without leading zeros, or a name of at most 253 characters. A name is labels of 1 to 63 letters,
    // digits, "-" and "_", joined by dots; the last label is not a number, and one dot may end the name. The port is a decimal
    // number of at most five digits, 0 to 65535. A name stays pending: TryResolve or a connector looks it up.
    // CM_ERROR_INVALID_ARG: aReason (out, may be null) is a description of the fault. Every other form is refused today; future
    // forms begin with "[" or contain a "/". CM_ERROR_OUT_OF_MEMORY.
    static CmResult Parse(std::string_view aHostAndPort, CCmInetAddr& aAddr, CCmString* aReason = nullptr);

    // Sets a literal address only, in any form that inet_addr() accepts (also "1.2" and "0x7f.1"); null or "" is 0.0.0.0.
    // Removes the name, pending or given. CM_ERROR_FAILURE: not an address, and nothing changes.
    CmResult SetIpAddrByString(const char* aIpAddr);

    CmResult SetIpAddrBy4Bytes(DWORD aIpAddr, BOOL aIsNetworkOrder = TRUE);  // removes the name, too; CM_OK
    CmResult SetPort(WORD aPort);                                            // host order; CM_OK

    // Completes a pending name with an address that the caller has looked up, in network order; the given name stays. CM_OK.
    CmResult SetResolvedIpAddr(DWORD aIpAddr);

    // Resolves a pending name from the resolver's cache; never waits. CM_OK: resolved, or no name was pending; a name that has
    // no address, as the cache says, becomes 255.255.255.255. CM_ERROR_WOULD_BLOCK: the look-up is under way, or there is no
    // resolver. Any other result: the resolver cannot look it up. After a failure the name stays pending.
    CmResult TryResolve();

    WORD GetPort() const;                                                   // host order
    DWORD GetIpAddrIn4Bytes() const { return m_SockAddr.sin_addr.s_addr; }  // network order
    DWORD GetSize() const { return sizeof(m_SockAddr); }
    DWORD GetType() const { return m_SockAddr.sin_family; }

    // For the socket calls. A write through the pointer does not change a pending name.
    const sockaddr_in* GetPtr() const { return &m_SockAddr; }
    sockaddr_in* GetPtr() { return &m_SockAddr; }

    BOOL IsResolved() const { return m_strHostName.empty(); }
    CCmString GetHostName() const { return m_strHostName; }  // "" when resolved
    CCmString GetIpDisplayName() const;                      // the pending name, or the dotted address

    // The host name that the address was made from, also after its look-up; "" for a literal address, and once the caller has
    // set another address. Certificates are checked against it. Valid until the address is set again or destroyed.
    const char* GetGivenName() const { return m_pRecord ? m_pRecord->GetGivenName() : ""; }
    // The given name if a look-up found no address for it, or "". Valid as above.
    const char* GetFailedName() const { return IsResolved() && !HasAddress() ? GetGivenName() : ""; }
    // TRUE: resolved, and the look-up found an address.
    BOOL HasAddress() const { return IsResolved() && !(m_pRecord && GetIpAddrIn4Bytes() == INADDR_NONE); }

    // aText (out): "host:port" with a terminator, cut to aSize bytes. Allocates nothing. The host is the name if there is no
    // address.
    void Print(char* aText, DWORD aSize) const;

    // Compares family, port and address, not the names.
    bool operator==(const CCmInetAddr& aRight) const;

    // An order for map keys: first the stored address, read as a number of this machine, then the stored port, read the same
    // way. This is not the numeric order of dotted addresses.
    bool operator<(const CCmInetAddr& aRight) const;

    // aOut (out): the address in network order. FALSE: not an address, and aOut is the result of inet_addr(). Null and "" give
    // 0 and TRUE.
    static BOOL IpAddrStringTo4Bytes(const char* aIpAddr, DWORD& aOut);
    static CCmString IpAddr4BytesToString(DWORD aIpAddr);  // network order

    // 0.0.0.0, port 0: no address given. Valid before and after every other static object.
    static const CCmInetAddr& s_InetAddrAny;

private:
    void SetName_i(const char* aHostName, WORD aPort);
    CmResult Set_i(const char* aHostName, WORD aPort);
    CmResult Set_i(const char* aIpAddrAndPort);
    static CmResult Parse_i(std::string_view aHostAndPort, CCmInetAddr& aAddr, CCmString* aReason);

    sockaddr_in m_SockAddr{AF_INET, 0, {0}, {}};
    CCmString m_strHostName;
    CCmRefPtrT<talvo::CAddrRecord> m_pRecord;  // null: a plain address
};
