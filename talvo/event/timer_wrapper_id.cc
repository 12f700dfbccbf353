#include "talvo/event/timer_wrapper_id.h"

#include <utility>

#include "talvo/base/trace.h"
#include "talvo/event/thread.h"
#include "talvo/event/thread_manager.h"

CCmTimerWrapperIDSink::~CCmTimerWrapperIDSink() = default;

CCmTimerWrapperID::~CCmTimerWrapperID() { Cancel(); }

CmResult CCmTimerWrapperID::Schedule(CCmTimerWrapperIDSink* aSink, const CCmTimeValue& aInterval, unsigned long aCount) {
    if (!m_pTimerQueue && !Bind_i()) {
        CM_ERROR_TRACE_THIS("CCmTimerWrapperID::Schedule, this thread doesn't suppport TimerQueue!");
        return CM_ERROR_NULL_POINTER;
    }
    m_bScheduled = TRUE;
    return m_pTimerQueue->ScheduleTimer(this, aSink, aInterval, aCount);
}

// Runs once in the life of a wrapper: a later schedule does not look up the thread.
BOOL CCmTimerWrapperID::Bind_i() {
    ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    ICmTimerQueue* pQueue = pThread ? pThread->GetTimerQueue() : nullptr;
    if (!pQueue || pThread->GetLink().Join(*this) != CM_OK)
        return FALSE;
    m_pTimerQueue = pQueue;
    return TRUE;
}

void CCmTimerWrapperID::OnThreadEnd() { std::exchange(m_pTimerQueue, nullptr)->CancelTimer(this); }

CmResult CCmTimerWrapperID::Cancel() {
    if (!m_bScheduled)
        return CM_OK;
    const CmResult rv = m_pTimerQueue ? m_pTimerQueue->CancelTimer(this) : CM_ERROR_NULL_POINTER;
    m_bScheduled = rv == CM_ERROR_FAILURE;  // called in another thread: the timer continues
    return rv;
}

void CCmTimerWrapperID::OnTimeout(const CCmTimeValue&, void* aArg) {
    if (aArg)
        static_cast<CCmTimerWrapperIDSink*>(aArg)->OnTimer(this);
}
