#include "talvo/event/event_queue_using_mutex.h"

namespace {

using Guard = CCmMutexGuardT<CCmMutexThread>;

}  // namespace

CmResult CCmEventQueueUsingMutex::PostEvent(ICmEvent* aEvent, EPriority aPri) {
    return PostEventWithOldSize(aEvent, aPri, nullptr);
}

CmResult CCmEventQueueUsingMutex::PostEventWithOldSize(ICmEvent* aEvent, EPriority, unsigned long* aOldSize) {
    CmResult rv;
    {
        Guard guard(m_Mutex);
        if (aOldSize)
            *aOldSize = GetPendingEventsCount();
        rv = Append_l(aEvent);
    }
    return Refuse(aEvent, rv);
}

void CCmEventQueueUsingMutex::Stop() {
    Guard guard(m_Mutex);
    CCmEventQueueBase::Stop();
}

CmResult CCmEventQueueUsingMutex::PopPendingEventsWithLock(EventsType& aEvents, unsigned long aMaxCount,
                                                           unsigned long* aRemain) {
    return PopPendingEvents(aEvents, aMaxCount, aRemain, [this] {
        Guard guard(m_Mutex);
        Collect_l();
    });
}

CCmEventQueueBase::EventsType CCmEventQueueUsingMutex::TakeAll() {
    Guard guard(m_Mutex);
    return CCmEventQueueBase::TakeAll();
}
