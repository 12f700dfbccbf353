// The event queue of a thread without a reactor. The thread's loop waits in it.
#pragma once

#include "talvo/base/synchronization.h"
#include "talvo/event/event_queue_base.h"

// Any thread posts; the owner waits for events and takes them.
class TALVO_API CCmEventQueueUsingConditionVariable : public CCmEventQueueBase {
public:
    CCmEventQueueUsingConditionVariable();  // empty and open

    // Wakes the owner after the mutex was released. A refused post wakes no thread.
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) override;

    // After its return no post succeeds, not even one that was under way.
    void Stop() override;

    // Owner's thread. If no event is pending, waits once for at most aTimeout (null: no limit). aEvents (out): at most
    // aMaxCount of the oldest events. CM_ERROR_NOT_FOUND: there was none after a time-out or a spurious wake-up; not a failure.
    CmResult PopOrWaitPendingEvents(EventsType& aEvents, CCmTimeValue* aTimeout, unsigned long aMaxCount);

protected:
    EventsType TakeAll() override;

private:
    void Wait_l(CCmTimeValue* aTimeout);

    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Condition;
};
