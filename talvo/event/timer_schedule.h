// The body of ScheduleTimer, for the queues that have it in line.
#pragma once

#include "talvo/base/clock.h"
#include "talvo/event/timer_queue_base.h"

template <class Push>
CmResult CCmTimerQueueBase::Schedule_i(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval, unsigned long aCount,
                                       Push aPush) {
    if (!aEh)
        return CM_ERROR_INVALID_ARG;
    __builtin_prefetch(aEh, 1);  // while the clock is read
    const int64_t llInterval = aInterval.GetTotalInUsec();
    if (llInterval <= 0 && aCount != 1)
        return CM_ERROR_INVALID_ARG;
    if (!m_Mutex.IsCurrentThread())
        return CM_ERROR_FAILURE;
    if (aArg == &s_cDeletion)
        return AddDeletion_i(static_cast<CCmTimerDelete&>(*aEh));

    int64_t llEarliest = 0;
    const CmBool bWasEmpty = m_pObserver && GetEarliestTime_l(llEarliest) == -1;
    CNode node;
    node.m_pEh = aEh;
    node.m_pArg = aArg;
    node.m_llInterval = llInterval;
    node.m_llExpires = CCmClock::GetTimeOfDayUsec() + llInterval;
    node.m_dwCount = aCount > 0 && aCount < COUNT_WITHOUT_END ? static_cast<CmDword>(aCount) : COUNT_WITHOUT_END;

    int nPushed;
    {
        CCmMutexGuardT<CCmMutexNullSingleThread> guard(m_Mutex);
        if (m_bInPass && node.m_llExpires <= m_llPassNow) {
            m_bNextPass = CM_TRUE;
            nPushed = PushNextPassNode_l(node);
        } else {
            nPushed = aPush(node);
        }
    }
    if (bWasEmpty)
        m_pObserver->OnObserve("TimerQueue");
    switch (nPushed) {
    case 0:
        return CM_OK;
    case 1:
        return CM_ERROR_FOUND;
    case NO_MEMORY:
        return CM_ERROR_OUT_OF_MEMORY;
    default:
        return CM_ERROR_FAILURE;
    }
}
