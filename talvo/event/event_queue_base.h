// What all event queues share: the list, the counters, the owner and the stop flag.
#pragma once

#include <atomic>
#include <list>

#include "talvo/base/time_value.h"
#include "talvo/event/event_queue.h"

// Has no lock of its own: the derived queues hold theirs while they touch the list. Popping, firing and destroying happen only
// in the owner thread.
class TALVO_API CCmEventQueueBase : public ICmEventQueue {
public:
    using EventsType = std::list<ICmEvent*>;

    CCmEventQueueBase();
    // Destroys what is pending, unfired.
    ~CCmEventQueueBase() override;
    CCmEventQueueBase(const CCmEventQueueBase&) = delete;
    CCmEventQueueBase& operator=(const CCmEventQueueBase&) = delete;

    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) override;
    CmResult SendEvent(ICmEvent* aEvent) override;
    DWORD GetPendingEventsCount() override { return m_dwSize.load(std::memory_order_relaxed); }

    // From now on every post and send is refused; there is no restart. What is in the list stays until popped or destroyed.
    virtual void Stop();

    // Makes the calling thread the owner.
    void Reset2CurrentThreadId();

    // Runs a batch in order, to its end even when the queue is stopped meanwhile. CM_OK.
    CmResult ProcessEvents(const EventsType& aEvents);
    // OnEventFire, then OnDestorySelf; CM_OK, or CM_ERROR_INVALID_ARG for null.
    CmResult ProcessOneEvent(ICmEvent* aEvent);

    // Destroys all pending events, oldest first, without firing them.
    void DestoryPendingEvents();

    // Kept for reports about slow queues; nothing is reported with it.
    static CCmTimeValue s_tvReportInterval;

protected:
    // Moves at most aMaxCount of the oldest events to the empty list aEvents. CM_ERROR_NOT_FOUND: none pending, aRemain
    // untouched. Otherwise CM_OK, and aRemain (if given) says how many are left; an aMaxCount of 0 moves nothing.
    CmResult PopPendingEvents(EventsType& aEvents, unsigned long aMaxCount, unsigned long* aRemain);
    // Takes the oldest event. CM_ERROR_NOT_FOUND: none.
    CmResult PopOnePendingEvent(ICmEvent*& aEvent, unsigned long* aRemain);
    // The two halves of PostEvent, for queues that hold a lock around the first only: a refused event's end may call anything.
    CmResult Append_l(ICmEvent* aEvent);
    CmResult Refuse(ICmEvent* aEvent, CmResult aReason);
    // The whole list, the queue left empty.
    virtual EventsType TakeAll();

    BOOL IsOwnerThread() const;

private:
    EventsType m_Events;             // owns the events in it
    std::atomic<DWORD> m_dwSize{0};  // equal to the list's length
    CCmTimeValue m_tvCreated;
    std::atomic<DWORD> m_dwThreadId{0};  // 0: nobody owns the queue yet
    std::atomic<BOOL> m_bStopped{FALSE};
};
