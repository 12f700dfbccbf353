// The timer of application code: an object with its own schedule.
#pragma once

#include "talvo/event/thread_link.h"
#include "talvo/event/timer_queue.h"

class CCmTimerWrapperID;

class TALVO_API CCmTimerWrapperIDSink {
public:
    // The timer is due, in the thread that scheduled it. It may schedule, cancel or delete aId inside. It must not throw.
    virtual void OnTimer(CCmTimerWrapperID* aId) = 0;
    virtual ~CCmTimerWrapperIDSink();
};

// Schedules itself in the timer queue of the thread that first calls Schedule, and is bound to that thread until the thread
// ends: it must be scheduled, cancelled and destroyed there. The destructor cancels. The thread's end cancels as well;
// afterwards the object is bound to none and may be destroyed in any thread.
class TALVO_API CCmTimerWrapperID : public ICmTimerHandler, private CCmThreadTenant {
public:
    CCmTimerWrapperID() = default;
    ~CCmTimerWrapperID() override;
    CCmTimerWrapperID(const CCmTimerWrapperID&) = delete;
    CCmTimerWrapperID& operator=(const CCmTimerWrapperID&) = delete;

    // aSink->OnTimer every aInterval, aCount times (0: without end). Replaces a schedule that is still running:
    // CM_ERROR_FOUND then, a success too. CM_ERROR_NULL_POINTER: the calling thread has no timer queue, or has ended. Else as
    // ICmTimerQueue::ScheduleTimer. aSink is not owned.
    CmResult Schedule(CCmTimerWrapperIDSink* aSink, const CCmTimeValue& aInterval, unsigned long aCount = 0);

    // CM_OK, also when never scheduled; CM_ERROR_NOT_FOUND when the last firing is over; CM_ERROR_NULL_POINTER when the thread
    // has ended since; CM_ERROR_FAILURE when another thread calls, and the timer goes on.
    CmResult Cancel();

    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

private:
    void OnThreadEnd() override;
    BOOL Bind_i();

    BOOL m_bScheduled = FALSE;               // stays set when a one-shot has fired
    ICmTimerQueue* m_pTimerQueue = nullptr;  // not owned; of the first Schedule's thread, null once that has ended
};
