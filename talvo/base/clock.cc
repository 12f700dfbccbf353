#include "talvo/base/clock.h"

#include <atomic>
#include <ctime>

#ifdef __x86_64__
#include <x86intrin.h>
#endif

#include "talvo/base/recent_tick.h"

ICmClock::~ICmClock() = default;

namespace {

int64_t ReadUsec(clockid_t aClock) {
    timespec now{};
    clock_gettime(aClock, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

std::atomic<ICmClock*> s_pClock{nullptr};  // not owned; null: the system's clock

int64_t MonotonicUsec() {
    ICmClock* pClock = s_pClock.load(std::memory_order_acquire);
    return pClock ? pClock->GetMonotonicUsec() : ReadUsec(CLOCK_MONOTONIC);
}

// Computed once per process. A replaced source keeps the offset, so time does not jump if the source starts at the system's
// time.
int64_t WallOffsetUsec() {
    static const int64_t s_llOffset = ReadUsec(CLOCK_REALTIME) - ReadUsec(CLOCK_MONOTONIC);
    return s_llOffset;
}

// Out of line, so that the short way through its caller stores no registers.
[[gnu::noinline]] int64_t ReadTimeOfDayUsec() { return MonotonicUsec() + WallOffsetUsec(); }

}  // namespace

// Asking the system is most of the cost of scheduling a timer; the processor's tick counter costs a third of that. So one
// reading serves this thread for a thousand ticks. On a counter of 1 GHz or more that is less than one microsecond, the unit of
// the result. The result is late by less than one, never ahead, and never goes back within a thread. A counter that jumps
// (another processor, sleep) leaves that range and causes a new reading.
int64_t CCmClock::GetTimeOfDayUsec() {
#ifdef __x86_64__
    [[gnu::tls_model("initial-exec")]] static constinit thread_local uint64_t s_ullTicks = 0;
    [[gnu::tls_model("initial-exec")]] static constinit thread_local int64_t s_llUsec = 0;
    const uint64_t ullTicks = __rdtsc();
    if (s_pClock.load(std::memory_order_acquire)) [[unlikely]]
        return ReadTimeOfDayUsec();
    if (ullTicks - s_ullTicks >= 1000) {
        s_ullTicks = ullTicks;  // taken before the reading, so that the reading counts as older than it is
        s_llUsec = ReadTimeOfDayUsec();
    }
    return s_llUsec;
#else
    return ReadTimeOfDayUsec();
#endif
}

int64_t CCmClock::GetWallUsec() {
    ICmClock* pClock = s_pClock.load(std::memory_order_acquire);
    return pClock ? pClock->GetWallUsec() : ReadUsec(CLOCK_REALTIME);
}

ICmClock* CCmClock::Replace(ICmClock* aClock) { return s_pClock.exchange(aClock, std::memory_order_acq_rel); }

// A reading serves this thread for a hundred thousand ticks of the processor's counter, as above.
DWORD talvo::GetRecentTick() {
#ifdef __x86_64__
    [[gnu::tls_model("initial-exec")]] static constinit thread_local uint64_t s_ullTicks = 0;
    [[gnu::tls_model("initial-exec")]] static constinit thread_local DWORD s_dwTick = 0;
    const uint64_t ullTicks = __rdtsc();
    if (s_pClock.load(std::memory_order_acquire))
        return get_tick_count();
    if (ullTicks - s_ullTicks >= 100000) {
        s_dwTick = get_tick_count();
        s_ullTicks = ullTicks;
    }
    return s_dwTick;
#else
    return get_tick_count();
#endif
}

int64_t talvo::GetRecentWallSecond() {
    ICmClock* pClock = s_pClock.load(std::memory_order_acquire);
    return (pClock ? pClock->GetWallUsec() : ReadUsec(CLOCK_REALTIME_COARSE)) / 1000000;
}

DWORD get_tick_count() { return static_cast<DWORD>(MonotonicUsec() / 1000); }

DWORD calculate_tick_interval(unsigned long aStart, unsigned long aEnd) {
    return static_cast<DWORD>(aEnd) - static_cast<DWORD>(aStart);
}
