// The library's one source of time. Everything that measures, waits for a timer or stamps a line asks here, so a test or a
// simulation that replaces the source controls all of it.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// What a source of time has to offer. Microseconds, 64 bits. Called from any thread, so it must be safe there.
class TALVO_API ICmClock {
public:
    // Time since an arbitrary moment; never goes back.
    virtual int64_t GetMonotonicUsec() = 0;
    // Time since 1 January 1970 UTC as the system has it now; may be stepped.
    virtual int64_t GetWallUsec() = 0;
    virtual ~ICmClock();
};

class TALVO_API CCmClock {
public:
    // The time of day of all time-outs: the wall time taken once, advanced by the monotonic clock. A stepped system clock
    // therefore moves no time-out. Microseconds since 1970, from the system late by one at most.
    static int64_t GetTimeOfDayUsec();

    // The true wall time, for people to read. Microseconds since 1970.
    static int64_t GetWallUsec();

    // Makes aClock the source (null: the system's again) and returns the one before it (null: the system's). aClock is not
    // owned and must outlive its use. Replace it while no other thread of the library runs, or with a source that goes on
    // from where the old one stood.
    static ICmClock* Replace(ICmClock* aClock);
};

// Milliseconds on the monotonic clock, wrapping every 49.7 days: use calculate_tick_interval() to subtract two of them.
TALVO_API DWORD get_tick_count();

// aEnd - aStart in unsigned 32-bit arithmetic, so that a wrap of the tick counter between the two does no harm.
TALVO_API DWORD calculate_tick_interval(unsigned long aStart, unsigned long aEnd);
