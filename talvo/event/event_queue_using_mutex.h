// The event queue of a reactor.
#pragma once

#include "talvo/base/mutex.h"
#include "talvo/event/event_queue_base.h"

// A mutex around the list. A post wakes nobody: that is the reactor's business.
class TALVO_API CCmEventQueueUsingMutex : public CCmEventQueueBase {
public:
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) override;

    // As PostEvent; aOldSize (may be null) receives how many events were pending before, taken under the same lock.
    CmResult PostEventWithOldSize(ICmEvent* aEvent, EPriority aPri, unsigned long* aOldSize);

    // When it returns, no post under way gets in any more.
    void Stop() override;

    // Owner's thread: at most aMaxCount of the oldest events, see CCmEventQueueBase::PopPendingEvents.
    CmResult PopPendingEventsWithLock(EventsType& aEvents, unsigned long aMaxCount, unsigned long* aRemain);

protected:
    EventsType TakeAll() override;

private:
    CCmMutexThread m_Mutex;
};
