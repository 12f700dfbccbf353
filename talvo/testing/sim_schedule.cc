#include "talvo/testing/sim_schedule.h"

#include <algorithm>
#include <utility>

#include "talvo/testing/sim_reactor.h"

namespace talvo {

void CSimSchedule::After(int64_t aDelay, std::function<void()> aRun) {
    m_Calls.push({m_llNow + aDelay, m_ullCalls++, std::move(aRun)});
}

void CSimSchedule::Clear() {
    while (!m_Calls.empty())
        std::exchange(m_Calls, {});
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
    const auto run = std::move(const_cast<CCall&>(m_Calls.top()).m_Run);  // popped next
    m_Calls.pop();
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
