#include "talvo/event/event_queue_using_condition_variable.h"

#include "talvo/base/trace.h"

namespace {

using Guard = CCmMutexGuardT<CCmMutexThread>;

}  // namespace

CCmEventQueueUsingConditionVariable::CCmEventQueueUsingConditionVariable() : m_Condition(m_Mutex) {}

CmResult CCmEventQueueUsingConditionVariable::PostEvent(ICmEvent* aEvent, EPriority) {
    CmResult rv;
    {
        Guard guard(m_Mutex);
        rv = Append_l(aEvent);
    }
    if (rv == CM_OK)
        m_Condition.Signal();
    return Refuse(aEvent, rv);
}

void CCmEventQueueUsingConditionVariable::Stop() {
    Guard guard(m_Mutex);
    CCmEventQueueBase::Stop();
}

CmResult CCmEventQueueUsingConditionVariable::PopOrWaitPendingEvents(EventsType& aEvents, CCmTimeValue* aTimeout,
                                                                     unsigned long aMaxCount) {
    return PopPendingEvents(aEvents, aMaxCount, nullptr, [&] {
        Guard guard(m_Mutex);
        if (aEvents.empty() && GetPendingEventsCount() == 0)
            Wait_l(aTimeout);
        Collect_l();
    });
}

void CCmEventQueueUsingConditionVariable::Wait_l(CCmTimeValue* aTimeout) {
    const CmResult rv = m_Condition.Wait(aTimeout);
    // The wording fits another situation. It stays, because operators search their logs for it.
    if (rv != CM_OK && rv != CM_ERROR_TIMEOUT) {
        CM_ERROR_TRACE_THIS("CCmEventQueueUsingConditionVariable::PopOrWaitPendingEvents,m_Events is not empty. nSize="
                            << GetPendingEventsCount() << " rv=" << rv);
    }
}

CCmEventQueueBase::EventsType CCmEventQueueUsingConditionVariable::TakeAll() {
    Guard guard(m_Mutex);
    return CCmEventQueueBase::TakeAll();
}
