// The event queue of a thread without a reactor: its loop sleeps in it.
#pragma once

#include "talvo/base/synchronization.h"
#include "talvo/event/event_queue_base.h"

class TALVO_API CCmEventQueueUsingConditionVariable : public CCmEventQueueBase {
public:
    CCmEventQueueUsingConditionVariable();

    // Wakes the owner after the mutex was given back. A refused post wakes nobody.
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) override;

    // When it returns, no post under way gets in any more.
    void Stop() override;

    // Owner's thread: waits once, at most aTimeout (null: without limit), if nothing is pending, then takes at most aMaxCount
    // of the oldest events. CM_ERROR_NOT_FOUND: nothing was there, after a time-out or a wake-up for nothing; not a failure.
    CmResult PopOrWaitPendingEvents(EventsType& aEvents, CCmTimeValue* aTimeout, unsigned long aMaxCount);

protected:
    EventsType TakeAll() override;

private:
    void Wait_l(CCmTimeValue* aTimeout);

    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Condition;
};
