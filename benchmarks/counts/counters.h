// What this process does, counted where the library meets the system: the test program has functions of its own under the names
// of the system's, and the library calls those.
#pragma once

#include <cstdint>

// From the start of the process, all threads together.
struct CCounters {
    uint64_t m_ullCalls = 0;  // of the system for sockets, epoll and eventfd; waits that end for want of anything are left out
    uint64_t m_ullAllocations = 0;  // operator new
    uint64_t m_ullCopied = 0;       // bytes that memcpy and memmove copied
    uint64_t m_ullLocks = 0;        // mutexes taken

    static CCounters Now();
};

inline CCounters operator-(const CCounters& aLeft, const CCounters& aRight) {
    return {aLeft.m_ullCalls - aRight.m_ullCalls, aLeft.m_ullAllocations - aRight.m_ullAllocations,
            aLeft.m_ullCopied - aRight.m_ullCopied, aLeft.m_ullLocks - aRight.m_ullLocks};
}
