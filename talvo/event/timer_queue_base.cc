#include "talvo/event/timer_queue_base.h"

#include <algorithm>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/event/event_batch.h"
#include "talvo/event/timer_schedule.h"

ICmTimerHandler::~ICmTimerHandler() = default;
ICmTimerQueue::~ICmTimerQueue() = default;
ICmObserver::~ICmObserver() = default;

namespace {

using OwnerGuard = CCmMutexGuardT<CCmMutexNullSingleThread>;

// The first time after aNow that is a multiple of the interval after the expiry.
int64_t NextExpiry(int64_t aExpires, int64_t aInterval, int64_t aNow) {
    if (aExpires > aNow)
        return aExpires;
    return aExpires + ((aNow - aExpires) / aInterval + 1) * aInterval;
}

}  // namespace

CCmTimerQueueBase::~CCmTimerQueueBase() = default;

char CCmTimerQueueBase::s_cDeletion;

void* CCmTimerQueueBase::GetDeletionArg() { return &s_cDeletion; }

CmResult CCmTimerQueueBase::ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval,
                                          unsigned long aCount) {
    return Schedule_i(aEh, aArg, aInterval, aCount, [this](const CNode& aNode) { return PushNode_l(aNode); });
}

// The last one first, as of timers that are due at the same time.
[[gnu::noinline]] CmResult CCmTimerQueueBase::AddDeletion_i(CCmTimerDelete& aDeletion) {
    if (aDeletion.m_pNext)
        return CM_ERROR_FOUND;
    aDeletion.m_pNext = m_pDeletions ? m_pDeletions : &aDeletion;
    m_pDeletions = &aDeletion;
    if (m_pObserver)
        m_pObserver->OnObserve("TimerQueue");
    return CM_OK;
}

int CCmTimerQueueBase::PushNextPassNode_l(const CNode& aNode) {
    CNode node = aNode;
    node.m_llExpires = m_llPassNow + 1;
    return PushNode_l(node);
}

void CCmTimerQueueBase::AdmitNextPassNodes_l(int64_t) {}
void CCmTimerQueueBase::DropNodes_l() {}

CmResult CCmTimerQueueBase::CancelTimer(ICmTimerHandler* aEh) {
    if (!aEh)
        return CM_ERROR_INVALID_ARG;
    if (!m_Mutex.IsCurrentThread())
        return CM_ERROR_FAILURE;
    OwnerGuard guard(m_Mutex);
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
    int64_t llExpires = 0;
    return GetEarliestUsec(llExpires) ? CCmTimeValue::FromUsec(llExpires) : CCmTimeValue::s_tvMax;
}

BOOL CCmTimerQueueBase::GetEarliestUsec(int64_t& aExpires) {
    OwnerGuard guard(m_Mutex);
    if (!m_pDeletions)
        return GetEarliestTime_l(aExpires) == 0;
    aExpires = CCmClock::GetTimeOfDayUsec();
    return TRUE;
}

int CCmTimerQueueBase::CheckExpire(CCmTimeValue* aRemainTime) {
    int nFired = 0;
    int64_t llEarliest = 0;
    int64_t llNow = 0;
    if (m_pDeletions || GetEarliestTime_l(llEarliest) == 0) {  // an empty queue does not read the clock
        llNow = CCmClock::GetTimeOfDayUsec();
        if (m_pDeletions || m_bNextPass || llEarliest <= llNow)  // the loop looks behind each report: mostly nothing is due
            nFired = FirePass_i(llNow);
    }
    if (aRemainTime) {
        const BOOL bAny = GetEarliestUsec(llEarliest);
        *aRemainTime = bAny ? CCmTimeValue::FromUsec(std::max<int64_t>(llEarliest - llNow, 0)) : CCmTimeValue::s_tvMax;
    }
    return nFired;
}

// Out of line, so that the compiler can inline the check above into its callers.
[[gnu::noinline]] int CCmTimerQueueBase::FirePass_i(int64_t aNow) {
    const int64_t llOuterPassNow = std::exchange(m_llPassNow, aNow);
    const BOOL bOuterInPass = std::exchange(m_bInPass, TRUE);
    const CCmTimeValue tvNow = CCmTimeValue::FromUsec(aNow);
    const talvo::CEventBatch batch;

    CNode node;
    int nFired = RunDeletions_l(tvNow);
    AdmitNextPass_i(aNow);  // from a callback that started this pass itself
    while (PopDueNode_l(aNow, node)) {
        ++nFired;
        node.m_pEh->OnTimeout(tvNow, node.m_pArg);
    }
    AdmitNextPass_i(aNow);
    m_bInPass = bOuterInPass;
    m_llPassNow = llOuterPassNow;
    return nFired;
}

int CCmTimerQueueBase::RunDeletions_l(const CCmTimeValue& aNow) {
    int nRun = 0;
    for (CCmTimerDelete* pDeletion = std::exchange(m_pDeletions, nullptr); pDeletion; ++nRun) {
        CCmTimerDelete& deletion = *pDeletion;
        CCmTimerDelete* pNext = std::exchange(deletion.m_pNext, nullptr);
        pDeletion = pNext == &deletion ? nullptr : pNext;
        deletion.OnTimeout(aNow, GetDeletionArg());
    }
    return nRun;
}

void CCmTimerQueueBase::AdmitNextPass_i(int64_t aNow) {
    if (std::exchange(m_bNextPass, FALSE))
        AdmitNextPassNodes_l(aNow);
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
    AdmitNextPass_i(m_llPassNow);
    DropNodes_l();
    do {
        RunDeletions_l(CCmTimeValue::s_tvZero);
        while (PopFirstNode_l(node) == 0) {
        }
    } while (m_pDeletions);
}
