#include "talvo/event/timer_queue_base.h"

#include <algorithm>
#include <utility>

#include "talvo/base/clock.h"

ICmTimerHandler::~ICmTimerHandler() = default;
ICmTimerQueue::~ICmTimerQueue() = default;
ICmObserver::~ICmObserver() = default;

namespace {

using Guard = CCmMutexGuardT<CCmMutexNullSingleThread>;

// The first multiple of the interval behind the expiry that is later than now.
int64_t NextExpiry(int64_t aExpires, int64_t aInterval, int64_t aNow) {
    if (aExpires > aNow)
        return aExpires;
    return aExpires + ((aNow - aExpires) / aInterval + 1) * aInterval;
}

}  // namespace

CCmTimerQueueBase::~CCmTimerQueueBase() = default;

void* CCmTimerQueueBase::GetDeletionArg() {
    static char s_cArg;
    return &s_cArg;
}

CmResult CCmTimerQueueBase::ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval,
                                          unsigned long aCount) {
    if (!aEh)
        return CM_ERROR_INVALID_ARG;
    if (aInterval <= CCmTimeValue::s_tvZero && aCount != 1)
        return CM_ERROR_INVALID_ARG;

    int64_t llEarliest = 0;
    const BOOL bWasEmpty = m_pObserver && GetEarliestTime_l(llEarliest) == -1;
    CNode node;
    node.m_pEh = aEh;
    node.m_pArg = aArg;
    node.m_llInterval = aInterval.GetTotalInUsec();
    node.m_llExpires = CCmClock::GetTimeOfDayUsec() + node.m_llInterval;
    node.m_dwCount = aCount > 0 && aCount < COUNT_WITHOUT_END ? static_cast<DWORD>(aCount) : COUNT_WITHOUT_END;
    if (m_bInPass && node.m_llExpires <= m_llPassNow) {
        node.m_llExpires = m_llPassNow + 1;
        m_bAheadOfClock = TRUE;
    }

    int nPushed;
    {
        Guard guard(m_Mutex);
        nPushed = PushNode_l(node);
    }
    if (bWasEmpty)
        m_pObserver->OnObserve("TimerQueue");
    if (nPushed == 0)
        return CM_OK;
    return nPushed == 1 ? CM_ERROR_FOUND : CM_ERROR_FAILURE;
}

CmResult CCmTimerQueueBase::CancelTimer(ICmTimerHandler* aEh) {
    if (!aEh)
        return CM_ERROR_INVALID_ARG;
    Guard guard(m_Mutex);
    switch (EraseNode_l(aEh)) {
    case 0:
        return CM_OK;
    case 1:
        return CM_ERROR_NOT_FOUND;
    default:
        return CM_ERROR_FAILURE;
    }
}

CCmTimeValue CCmTimerQueueBase::GetEarliestTime() {
    Guard guard(m_Mutex);
    int64_t llExpires = 0;
    return GetEarliestTime_l(llExpires) == 0 ? CCmTimeValue::FromUsec(llExpires) : CCmTimeValue::s_tvMax;
}

int CCmTimerQueueBase::CheckExpire(CCmTimeValue* aRemainTime) {
    int nFired = 0;
    int64_t llEarliest = 0;
    int64_t llNow = 0;
    if (GetEarliestTime_l(llEarliest) == 0) {  // an empty queue costs no look at the clock
        llNow = CCmClock::GetTimeOfDayUsec();
        nFired = FirePass_i(llNow);
    }
    if (aRemainTime) {
        const BOOL bEmpty = GetEarliestTime_l(llEarliest) == -1;
        *aRemainTime = bEmpty ? CCmTimeValue::s_tvMax : CCmTimeValue::FromUsec(std::max<int64_t>(llEarliest - llNow, 0));
    }
    return nFired;
}

int CCmTimerQueueBase::FirePass_i(int64_t aNow) {
    // What was moved behind the last pass is due in this one, even if the clock has not moved since.
    const int64_t llOuterPassNow = m_llPassNow;
    const BOOL bOuterInPass = std::exchange(m_bInPass, TRUE);
    m_llPassNow = std::exchange(m_bAheadOfClock, FALSE) ? std::max(aNow, llOuterPassNow + 1) : aNow;
    const int64_t llPassNow = m_llPassNow;
    const CCmTimeValue tvNow = CCmTimeValue::FromUsec(aNow);

    int nFired = 0;
    CNode node;
    while (PopDueNode_l(llPassNow, node)) {
        ++nFired;
        node.m_pEh->OnTimeout(tvNow, node.m_pArg);
    }
    m_bInPass = bOuterInPass;
    return nFired;
}

BOOL CCmTimerQueueBase::PopDueNode_l(int64_t aNow, CNode& aNode) {
    int64_t llEarliest = 0;
    if (GetEarliestTime_l(llEarliest) == -1 || llEarliest > aNow || PopFirstNode_l(aNode) != 0)
        return FALSE;
    if (Advance(aNode, aNow))
        RePushNode_l(aNode);
    return TRUE;
}

BOOL CCmTimerQueueBase::Advance(CNode& aNode, int64_t aNow) {
    if (aNode.m_dwCount != COUNT_WITHOUT_END)
        --aNode.m_dwCount;
    if (aNode.m_dwCount == 0 || aNode.m_llInterval <= 0)
        return FALSE;
    aNode.m_llExpires = NextExpiry(aNode.m_llExpires, aNode.m_llInterval, aNow);
    return TRUE;
}

void CCmTimerQueueBase::RunPendingDeletions() {
    CNode node;
    while (PopFirstNode_l(node) == 0) {
        if (node.m_pArg == GetDeletionArg())
            node.m_pEh->OnTimeout(CCmTimeValue::FromUsec(node.m_llExpires), node.m_pArg);
    }
}
