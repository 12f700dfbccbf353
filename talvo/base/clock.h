// The library's only source of time. All timers, measurements and time stamps read it, so that a test or a simulation that
// replaces it controls all of them.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// A source of time in microseconds, 64 bits. Any thread may call it.
class TALVO_API ICmClock {
public:
    // Time since an arbitrary moment. It never goes back.
    virtual int64_t GetMonotonicUsec() = 0;
    // The system's time since 1 January 1970 UTC. It may be stepped.
    virtual int64_t GetWallUsec() = 0;
    virtual ~ICmClock();
};

// The library's one clock. All times of the library come from it.
class TALVO_API CCmClock {
public:
    // The time of day of all time-outs: the wall time, read once and advanced by the monotonic clock. A step of the system
    // clock therefore moves no time-out. Microseconds since 1970; with the system's clock late by one at most.
    static int64_t GetTimeOfDayUsec();

    // The wall time for people to read. Microseconds since 1970.
    static int64_t GetWallUsec();

    // Replaces the source and returns the previous one; null means the system's clock in both cases. aClock is not owned and
    // must outlive its use. Replace the source while no other thread of the library runs, or by one that continues from the old
    // time.
    static ICmClock* Replace(ICmClock* aClock);
};

// Milliseconds on the monotonic clock. The value wraps every 49.7 days: subtract two with calculate_tick_interval().
TALVO_API CmDword get_tick_count();

// aEnd - aStart in unsigned 32-bit arithmetic, so that one wrap of the tick counter between them does no harm.
TALVO_API CmDword calculate_tick_interval(unsigned long aStart, unsigned long aEnd);
