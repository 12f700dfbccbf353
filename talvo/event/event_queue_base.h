// The common part of all event queues: the list, the counters, the owner and the stop flag.
#pragma once

#include <atomic>

#include "talvo/base/time_value.h"
#include "talvo/event/event_list.h"
#include "talvo/event/event_queue.h"

// Has no lock of its own: the derived queues hold theirs while they access the list of arrived events. The owner collects that
// whole list at once and takes batches from it without the lock. Only the owner thread takes, fires and destroys events.
class TALVO_API CCmEventQueueBase : public ICmEventQueue {
public:
    using EventsType = talvo::CEventList;  // events in the order of their posts

    CCmEventQueueBase();  // empty and open
    // Destroys the pending events without firing them.
    ~CCmEventQueueBase() override;
    CCmEventQueueBase(const CCmEventQueueBase&) = delete;
    CCmEventQueueBase& operator=(const CCmEventQueueBase&) = delete;

    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) override;
    CmResult SendEvent(ICmEvent* aEvent) override;
    CmDword GetPendingEventsCount() override;

    // Refuses every later post and send; there is no restart. Pending events stay until they are taken or destroyed.
    virtual void Stop();

    // Makes the calling thread the owner.
    void Reset2CurrentThreadId();

    // Runs a batch in order and empties the list, even if the queue is stopped meanwhile. CM_OK.
    CmResult ProcessEvents(EventsType& aEvents);
    // Calls OnEventFire, then OnDestorySelf. CM_OK; CM_ERROR_INVALID_ARG: null.
    CmResult ProcessOneEvent(ICmEvent* aEvent);

    // Owner's thread. TRUE: more than aCount events are collected, so that no lock is needed to take them.
    CmBool HasMoreThan(unsigned long aCount) const { return m_Collected.size() > aCount; }

    // Destroys all pending events, the oldest first, without firing them.
    void DestoryPendingEvents();
    void DestroyPendingEvents() { DestoryPendingEvents(); }  // the same under its right spelling

    // Reserved for reports about slow queues; currently unused.
    static CCmTimeValue s_tvReportInterval;

protected:
    // Moves at most aMaxCount of the oldest events to aEvents (out), which must be empty. aRemain (out, may be null): the
    // number of events left. CM_ERROR_NOT_FOUND: none is pending, and aRemain is unchanged. Otherwise CM_OK; an aMaxCount of 0
    // moves nothing.
    CmResult PopPendingEvents(EventsType& aEvents, unsigned long aMaxCount, unsigned long* aRemain);
    // aEvent (out): the oldest event. CM_ERROR_NOT_FOUND: none.
    CmResult PopOnePendingEvent(ICmEvent*& aEvent, unsigned long* aRemain);
    // The same for queues with a lock: aCollect holds it around Collect_l. If HasMoreThan(aMaxCount), aCollect is not called:
    // an event will be left, so the owner will take again.
    template <class Collect>
    CmResult PopPendingEvents(EventsType& aEvents, unsigned long aMaxCount, unsigned long* aRemain, Collect aCollect);
    // Moves the arrived events to the collected ones, of which none may be left: a swap.
    void Collect_l() { m_Collected.TakeFrom(m_Arrived, m_Arrived.size()); }
    // The two halves of PostEvent, so that a derived queue can hold its lock around the first only: the end of a refused event
    // may call anything.
    CmResult Append_l(ICmEvent* aEvent);
    CmResult Refuse(ICmEvent* aEvent, CmResult aReason);
    // Takes the whole list and leaves the queue empty.
    virtual EventsType TakeAll();

    CmBool IsOwnerThread() const;

private:
    void TakeCollected(EventsType& aEvents, unsigned long aMaxCount);
    void CountTaken(size_t aCount);

    static constexpr size_t CACHE_LINE = 64;  // separates the posters' data from the owner's

    // Both lists own their events. Pending are the collected events and behind them the arrived ones. Each counter is written
    // in one place and never reset, so that neither needs a locked instruction. The difference is the number of pending events.
    alignas(CACHE_LINE) EventsType m_Collected;  // the owner's
    std::atomic<CmDword> m_dwTaken{0};           // the owner's
    alignas(CACHE_LINE) EventsType m_Arrived;    // under the derived queue's lock
    std::atomic<CmDword> m_dwPosted{0};          // under the lock
    CCmTimeValue m_tvCreated;
    std::atomic<CmDword> m_dwThreadId{0};  // 0: the queue has no owner yet
    std::atomic<CmBool> m_bStopped{CM_FALSE};
};

template <class Collect>
CmResult CCmEventQueueBase::PopPendingEvents(EventsType& aEvents, unsigned long aMaxCount, unsigned long* aRemain,
                                             Collect aCollect) {
    const CmBool bEnough = HasMoreThan(aMaxCount);
    TakeCollected(aEvents, aMaxCount);
    if (!bEnough) {
        aCollect();
        TakeCollected(aEvents, aMaxCount);
    }
    if (aEvents.empty() && m_Collected.empty())
        return CM_ERROR_NOT_FOUND;
    if (aRemain)
        *aRemain = GetPendingEventsCount();
    return CM_OK;
}
