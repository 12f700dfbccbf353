// The settings of the resolver, and the detection of their changes.
#pragma once

#include <sys/types.h>

#include "talvo/base/ip_bytes.h"

namespace talvo {

// The current keys of the section "Dns", and whether this machine has IPv6.
struct CDnsSettings {
    CCmString m_strServers;       // ip[:port], separated by commas; "": those of the resolver file
    CCmString m_strResolverFile;  // servers, search domains and options
    CCmString m_strHostsFile;
    DWORD m_dwTimeoutMs = 0;  // of the first try at a server; doubles with each round
    DWORD m_dwTries = 0;      // rounds over the servers
    BOOL m_bIpv4 = TRUE;      // the families that the key AddressFamily allows
    BOOL m_bIpv6 = TRUE;
    BOOL m_bHasIpv6 = FALSE;  // see HasIpv6

    static CDnsSettings Read();

    BOOL AsksForIpv4() const { return m_bIpv4; }
    // A machine without IPv6 asks for such addresses only if the key allows no others.
    BOOL AsksForIpv6() const { return m_bIpv6 && (m_bHasIpv6 || !m_bIpv4); }
    // Whether an address of the hosts file is used. That of loopback needs no IPv6 of the machine.
    BOOL Allows(const CIpBytes& aIp) const;

    bool operator==(const CDnsSettings&) const = default;
};

// TRUE: an interface of this machine is up and has an IPv6 address that reaches further than its link. Costs the system calls
// of getifaddrs.
BOOL HasIpv6();

// Detects changes of the keys, the resolver file, the hosts file and the interfaces. Checks at most once a second, with a
// handful of system calls. The user of this class locks.
class CDnsWatch {
public:
    // Stores the current state for comparison by HasChanged.
    void TakeNote();
    // TRUE: they have changed since the last check. The first call only stores the state.
    BOOL HasChanged();

private:
    struct CFileState {
        dev_t m_Device = 0;
        ino_t m_Inode = 0;
        off_t m_Size = 0;
        int64_t m_llModifiedNsec = 0;

        static CFileState Of(const CCmString& aPath);
        bool operator==(const CFileState&) const = default;
    };
    struct CState {
        CDnsSettings m_Settings;
        CFileState m_ResolverFile;
        CFileState m_HostsFile;

        bool operator==(const CState&) const = default;
    };

    BOOL m_bLooked = FALSE;
    int64_t m_llNextLookUsec = 0;
    CState m_State;
};

}  // namespace talvo
