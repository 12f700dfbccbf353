// Where names are looked up, and how to see that this has changed.
#pragma once

#include <sys/types.h>

#include "talvo/base/types.h"

namespace talvo {

// The keys of the section "Dns" as they are now.
struct CDnsSettings {
    CCmString m_strServers;       // ip[:port], separated by commas; "": those of the resolver file
    CCmString m_strResolverFile;  // servers, search domains and options
    CCmString m_strHostsFile;
    DWORD m_dwTimeoutMs = 0;  // of the first try at a server; doubles with each round
    DWORD m_dwTries = 0;      // rounds over the servers

    static CDnsSettings Read();
    bool operator==(const CDnsSettings&) const = default;
};

// Tells whether the keys, the resolver file or the hosts file are others than before. Looks at most once a second, and costs
// two system calls then. Its user locks.
class CDnsWatch {
public:
    // Looks in any case, for HasChanged to compare with.
    void TakeNote();
    // TRUE: they are others than when it last looked. The first call only takes note.
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
