// The timer for application code: an object with its own schedule.
#pragma once

#include "talvo/event/thread_link.h"
#include "talvo/event/timer_queue.h"

class CCmTimerWrapperID;

// Is called when a timer is due.
class TALVO_API CCmTimerWrapperIDSink {
public:
    // The timer is due; called in the thread that scheduled it. It may schedule, cancel or delete aId inside. It must not
    // throw.
    virtual void OnTimer(CCmTimerWrapperID* aId) = 0;
    virtual ~CCmTimerWrapperIDSink();
};

// Schedules itself in the timer queue of the thread that first calls Schedule, and is bound to that thread until the thread
// ends: schedule, cancel and destroy it there. The destructor cancels it, and so does the thread's end. After that end it is
// bound to no thread and may be destroyed in any.
class TALVO_API CCmTimerWrapperID : public ICmTimerHandler, private CCmThreadTenant {
public:
    CCmTimerWrapperID() = default;
    ~CCmTimerWrapperID() override;
    CCmTimerWrapperID(const CCmTimerWrapperID&) = delete;
    CCmTimerWrapperID& operator=(const CCmTimerWrapperID&) = delete;

    // Calls aSink->OnTimer every aInterval, aCount times (0: until cancelled). CM_ERROR_FOUND: replaced a running schedule;
    // also a success. CM_ERROR_NULL_POINTER: the calling thread has no timer queue, or has ended. Otherwise as
    // ICmTimerQueue::ScheduleTimer. aSink is not owned.
    CmResult Schedule(CCmTimerWrapperIDSink* aSink, const CCmTimeValue& aInterval, unsigned long aCount = 0);

    // CM_OK, also if it was never scheduled. CM_ERROR_NOT_FOUND: the last firing is over. CM_ERROR_NULL_POINTER: the thread has
    // ended since. CM_ERROR_FAILURE: called in another thread; the timer continues.
    CmResult Cancel();

    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

private:
    void OnThreadEnd() override;
    CmBool Bind_i();

    CmBool m_bScheduled = CM_FALSE;          // stays set after a one-shot has fired
    ICmTimerQueue* m_pTimerQueue = nullptr;  // not owned; of the first Schedule's thread, null after that thread's end
};
