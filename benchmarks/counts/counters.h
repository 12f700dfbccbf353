// Counts the process's calls from the library to the system. The test program defines functions with the names of the system's,
// and the library calls those.
#pragma once

#include <cstdint>

// Since the start of the process, of all threads together.
struct CCounters {
    uint64_t m_ullCalls = 0;        // system calls for sockets but close, and for their registration
    uint64_t m_ullWakes = 0;        // waits of a thread and its wake-ups by others; waits that time out do not count
    uint64_t m_ullAllocations = 0;  // operator new
    uint64_t m_ullCopied = 0;       // bytes that memcpy and memmove copied
    uint64_t m_ullLocks = 0;        // locked mutexes

    static CCounters Now();
};

inline CCounters operator-(const CCounters& aLeft, const CCounters& aRight) {
    return {aLeft.m_ullCalls - aRight.m_ullCalls, aLeft.m_ullWakes - aRight.m_ullWakes,
            aLeft.m_ullAllocations - aRight.m_ullAllocations, aLeft.m_ullCopied - aRight.m_ullCopied,
            aLeft.m_ullLocks - aRight.m_ullLocks};
}
