// Simulated time, and the order of events in it.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <queue>
#include <vector>

#include "talvo/base/clock.h"

namespace talvo {

class CSimReactor;

// The library's clock, and the loop of a simulation. Time does not run while code runs; it advances directly to the next event:
// posted events at once, then timers, then calls in the order of their times and, at one time, of their scheduling.
// Microseconds.
class CSimSchedule final : public ICmClock {
public:
    static constexpr int64_t NEVER = std::numeric_limits<int64_t>::max();

    // aStart: the first time of the library's clock.
    explicit CSimSchedule(int64_t aStart) : m_llStart(aStart), m_llNow(aStart) {}

    // Since the start.
    int64_t Now() const { return m_llNow - m_llStart; }
    void After(int64_t aDelay, std::function<void()> aRun);
    void Jump(int64_t aTime) { m_llNow += aTime; }

    // Runs all events due until aEnd (since the start; NEVER: until none is left) or until aIsDone, which is called between all
    // steps. TRUE: aIsDone. FALSE: the time is aEnd, or no event is left.
    BOOL RunUntil(int64_t aEnd, const std::function<BOOL()>& aIsDone);
    BOOL IsRunning() const { return m_bRunning; }

    // Not owned; null: there are no timers and no posted events.
    void SetReactor(CSimReactor* aReactor) { m_pReactor = aReactor; }
    // Called after each step.
    void SetStep(std::function<void()> aStep) { m_Step = std::move(aStep); }
    // Destroys all scheduled calls, and those that their destructors schedule.
    void Clear();

    int64_t GetMonotonicUsec() override { return m_llNow; }
    int64_t GetWallUsec() override { return m_llNow; }

private:
    struct CCall {
        int64_t m_llAt;
        uint64_t m_ullNumber;
        size_t m_stRun;                              // in m_Runs: the heap moves its entries often
        bool operator<(const CCall& aRight) const {  // the later one is less
            return m_llAt != aRight.m_llAt ? m_llAt > aRight.m_llAt : m_ullNumber > aRight.m_ullNumber;
        }
    };

    BOOL RunNext_i(int64_t aEnd);

    const int64_t m_llStart;
    int64_t m_llNow;
    BOOL m_bRunning = FALSE;
    uint64_t m_ullCalls = 0;
    std::priority_queue<CCall> m_Calls;
    std::vector<std::function<void()>> m_Runs;
    std::vector<size_t> m_FreeRuns;
    CSimReactor* m_pReactor = nullptr;
    std::function<void()> m_Step = [] {};
};

}  // namespace talvo
