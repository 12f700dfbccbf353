// The settings of the resolver, and the detection of their changes.
#pragma once

#include <sys/types.h>

#include "talvo/base/types.h"

namespace talvo {

// The current keys of the section "Dns".
struct CDnsSettings {
    CCmString m_strServers;       // ip[:port], separated by commas; "": those of the resolver file
    CCmString m_strResolverFile;  // servers, search domains and options
    CCmString m_strHostsFile;
    DWORD m_dwTimeoutMs = 0;  // of the first try at a server; doubles with each round
    DWORD m_dwTries = 0;      // rounds over the servers

    static CDnsSettings Read();
    bool operator==(const CDnsSettings&) const = default;
};

// Detects changes of the keys, the resolver file and the hosts file. Checks at most once a second, with two system calls. The
// user of this class locks.
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
