// The event queue of a reactor.
#pragma once

#include "talvo/base/mutex.h"
#include "talvo/event/event_queue_base.h"

// A mutex around the list. A post does not wake the loop: the reactor does that.
class TALVO_API CCmEventQueueUsingMutex : public CCmEventQueueBase {
public:
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) override;

    // As PostEvent. aOldSize (out, may be null): the number of events that were pending before, read under the same lock.
    CmResult PostEventWithOldSize(ICmEvent* aEvent, EPriority aPri, unsigned long* aOldSize);

    // After its return no post succeeds, not even one that was under way.
    void Stop() override;

    // Owner's thread. aEvents (out): at most aMaxCount of the oldest events, see CCmEventQueueBase::PopPendingEvents.
    CmResult PopPendingEventsWithLock(EventsType& aEvents, unsigned long aMaxCount, unsigned long* aRemain);

protected:
    EventsType TakeAll() override;

private:
    CCmMutexThread m_Mutex;
};
