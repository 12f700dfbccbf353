#include "talvo/base/clock.h"

#include <atomic>
#include <ctime>

ICmClock::~ICmClock() = default;

namespace {

int64_t ReadUsec(clockid_t aClock) {
    timespec now{};
    clock_gettime(aClock, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

std::atomic<ICmClock*> s_pClock{nullptr};  // not owned; null: the system's

int64_t MonotonicUsec() {
    ICmClock* pClock = s_pClock.load(std::memory_order_acquire);
    return pClock ? pClock->GetMonotonicUsec() : ReadUsec(CLOCK_MONOTONIC);
}

// Taken once per process; a replaced source keeps the offset, so that time does not jump when it starts where the system stood.
int64_t WallOffsetUsec() {
    static const int64_t s_llOffset = ReadUsec(CLOCK_REALTIME) - ReadUsec(CLOCK_MONOTONIC);
    return s_llOffset;
}

}  // namespace

int64_t CCmClock::GetTimeOfDayUsec() { return MonotonicUsec() + WallOffsetUsec(); }

int64_t CCmClock::GetWallUsec() {
    ICmClock* pClock = s_pClock.load(std::memory_order_acquire);
    return pClock ? pClock->GetWallUsec() : ReadUsec(CLOCK_REALTIME);
}

ICmClock* CCmClock::Replace(ICmClock* aClock) { return s_pClock.exchange(aClock, std::memory_order_acq_rel); }

DWORD get_tick_count() { return static_cast<DWORD>(MonotonicUsec() / 1000); }

DWORD calculate_tick_interval(unsigned long aStart, unsigned long aEnd) {
    return static_cast<DWORD>(aEnd) - static_cast<DWORD>(aStart);
}
