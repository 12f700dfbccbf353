#include "talvo/event/timer_wrapper_id.h"

#include "talvo/base/trace.h"
#include "talvo/event/thread_manager.h"

CCmTimerWrapperIDSink::~CCmTimerWrapperIDSink() = default;

CCmTimerWrapperID::~CCmTimerWrapperID() { Cancel(); }

CmResult CCmTimerWrapperID::Schedule(CCmTimerWrapperIDSink* aSink, const CCmTimeValue& aInterval, unsigned long aCount) {
    if (!m_pTimerQueue) {
        m_pTimerQueue = CCmThreadManager::Instance()->GetThreadTimerQueue(CCmThreadManager::TT_CURRENT);
        if (!m_pTimerQueue) {
            CM_ERROR_TRACE_THIS("CCmTimerWrapperID::Schedule, this thread doesn't suppport TimerQueue!");
            return CM_ERROR_NULL_POINTER;
        }
    }
    m_bScheduled = TRUE;
    return m_pTimerQueue->ScheduleTimer(this, aSink, aInterval, aCount);
}

CmResult CCmTimerWrapperID::Cancel() {
    if (!m_bScheduled)
        return CM_OK;
    m_bScheduled = FALSE;
    return m_pTimerQueue ? m_pTimerQueue->CancelTimer(this) : CM_ERROR_NULL_POINTER;
}

void CCmTimerWrapperID::OnTimeout(const CCmTimeValue&, void* aArg) {
    if (aArg)
        static_cast<CCmTimerWrapperIDSink*>(aArg)->OnTimer(this);
}
