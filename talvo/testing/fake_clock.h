// The library's time under a test's control, for tests with threads and sockets of their own.
#pragma once

#include <atomic>
#include <ctime>

#include "talvo/base/clock.h"
#include "talvo/base/time_value.h"

// Replaces the library's clock while in scope: it starts at the time of the system's clocks and moves only by Advance. Timers
// and time-outs that have become due fire in the next turn of their thread's loop. At the end the time goes back by the
// advanced amount.
//
// One at a time, and none beside a CCmSimNetwork, which has a clock of its own. Any thread may advance it. Threads of the
// library may run before, meanwhile and after, because the time source is never destroyed.
class CCmFakeClock {
public:
    // The library reads this clock from now on; it begins with the present time.
    CCmFakeClock() {
        Source().StartNow();
        CCmClock::Replace(&Source());
    }
    ~CCmFakeClock() { CCmClock::Replace(nullptr); }
    CCmFakeClock(const CCmFakeClock&) = delete;
    CCmFakeClock& operator=(const CCmFakeClock&) = delete;

    void Advance(const CCmTimeValue& aBy) { AdvanceAny(aBy); }  // moves both times

    // For fixtures: advances the clock in scope; without one it has no effect.
    static void AdvanceAny(const CCmTimeValue& aBy) {
        Source().m_llMonotonicUsec += aBy.GetTotalInUsec();
        Source().m_llWallUsec += aBy.GetTotalInUsec();
    }

    // Steps the wall time only, as an administrator does. Microseconds since 1970.
    void SetWallUsec(int64_t aUsec) { Source().m_llWallUsec = aUsec; }

private:
    struct CSource : ICmClock {
        int64_t GetMonotonicUsec() override { return m_llMonotonicUsec; }
        int64_t GetWallUsec() override { return m_llWallUsec; }
        void StartNow() {
            m_llMonotonicUsec = ReadUsec(CLOCK_MONOTONIC);
            m_llWallUsec = ReadUsec(CLOCK_REALTIME);
        }
        static int64_t ReadUsec(clockid_t aClock) {
            timespec now{};
            clock_gettime(aClock, &now);
            return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
        }

        std::atomic<int64_t> m_llMonotonicUsec;
        std::atomic<int64_t> m_llWallUsec;
    };

    static CSource& Source() {
        static auto* const s_pSource = new CSource;
        return *s_pSource;
    }
};
