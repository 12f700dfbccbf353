#include "talvo/testing/sim_schedule.h"

#include <algorithm>
#include <utility>

#include "talvo/testing/sim_reactor.h"

namespace talvo {

void CSimSchedule::After(int64_t aDelay, std::function<void()> aRun) {
    size_t stRun = m_Runs.size();
    if (m_FreeRuns.empty()) {
        m_Runs.push_back(std::move(aRun));
    } else {
        stRun = m_FreeRuns.back();
        m_FreeRuns.pop_back();
        m_Runs[stRun] = std::move(aRun);
    }
    m_Calls.push({m_llNow + aDelay, m_ullCalls++, stRun});
}

void CSimSchedule::Clear() {
    while (!m_Calls.empty()) {
        m_Calls = {};
        m_FreeRuns.clear();
        const auto runs = std::exchange(m_Runs, {});
    }
}

// FALSE: nothing is due until aEnd, on the library's clock.
BOOL CSimSchedule::RunNext_i(int64_t aEnd) {
    if (m_pReactor && m_pReactor->RunPosted())
        return TRUE;
    const int64_t llWait = m_pReactor ? m_pReactor->GetTimerWait() : NEVER;
    const int64_t llTimer = llWait == NEVER ? NEVER : m_llNow + llWait;
    const int64_t llCall = m_Calls.empty() ? NEVER : std::max(m_Calls.top().m_llAt, m_llNow);
    const int64_t llNext = std::min(llTimer, llCall);
    if (llNext == NEVER || llNext > aEnd)
        return FALSE;
    m_llNow = llNext;
    if (llTimer <= llCall) {
        m_pReactor->ProcessTimerTick();
        return TRUE;
    }
    const size_t stRun = m_Calls.top().m_stRun;
    m_Calls.pop();
    const auto run = std::exchange(m_Runs[stRun], {});
    m_FreeRuns.push_back(stRun);
    run();
    return TRUE;
}

BOOL CSimSchedule::RunUntil(int64_t aEnd, const std::function<BOOL()>& aIsDone) {
    const int64_t llEnd = aEnd == NEVER ? NEVER : std::max(m_llStart + aEnd, m_llNow);
    m_bRunning = TRUE;
    BOOL bDone = aIsDone();
    while (!bDone && RunNext_i(llEnd)) {
        m_Step();
        bDone = aIsDone();
    }
    if (!bDone && llEnd != NEVER)
        m_llNow = std::max(m_llNow, llEnd);
    m_bRunning = FALSE;
    return bDone;
}

}  // namespace talvo
