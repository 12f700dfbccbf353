// What all event queues share: the list, the counters, the owner and the stop flag.
#pragma once

#include <atomic>

#include "talvo/base/time_value.h"
#include "talvo/event/event_list.h"
#include "talvo/event/event_queue.h"

// Has no lock of its own: the derived queues hold theirs while they touch what has arrived. The owner collects that in one go
// and then takes batch after batch from it without the lock. Popping, firing and destroying happen only in the owner thread.
class TALVO_API CCmEventQueueBase : public ICmEventQueue {
public:
    using EventsType = talvo::CEventList;

    CCmEventQueueBase();
    // Destroys what is pending, unfired.
    ~CCmEventQueueBase() override;
    CCmEventQueueBase(const CCmEventQueueBase&) = delete;
    CCmEventQueueBase& operator=(const CCmEventQueueBase&) = delete;

    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) override;
    CmResult SendEvent(ICmEvent* aEvent) override;
    DWORD GetPendingEventsCount() override;

    // From now on every post and send is refused; there is no restart. What is in the list stays until popped or destroyed.
    virtual void Stop();

    // Makes the calling thread the owner.
    void Reset2CurrentThreadId();

    // Runs a batch in order, to its end even when the queue is stopped meanwhile, and leaves the list empty. CM_OK.
    CmResult ProcessEvents(EventsType& aEvents);
    // OnEventFire, then OnDestorySelf; CM_OK, or CM_ERROR_INVALID_ARG for null.
    CmResult ProcessOneEvent(ICmEvent* aEvent);

    // Owner's thread: whether more than so many can be taken without a look at what posters have added since the last look.
    BOOL HasMoreThan(unsigned long aCount) const { return m_Collected.size() > aCount; }

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
    // The same for queues with a lock: aCollect holds it around Collect_l. Without a call of it where HasMoreThan(aMaxCount):
    // then something is left, and so the owner will look again.
    template <class Collect>
    CmResult PopPendingEvents(EventsType& aEvents, unsigned long aMaxCount, unsigned long* aRemain, Collect aCollect);
    // What has arrived becomes what is collected, of which nothing may be left: a swap.
    void Collect_l() { m_Collected.TakeFrom(m_Arrived, m_Arrived.size()); }
    // The two halves of PostEvent, for queues that hold a lock around the first only: a refused event's end may call anything.
    CmResult Append_l(ICmEvent* aEvent);
    CmResult Refuse(ICmEvent* aEvent, CmResult aReason);
    // The whole list, the queue left empty.
    virtual EventsType TakeAll();

    BOOL IsOwnerThread() const;

private:
    void TakeCollected(EventsType& aEvents, unsigned long aMaxCount);
    void CountTaken(size_t aCount);

    static constexpr size_t CACHE_LINE = 64;  // what posters write and what the owner writes lie in different ones

    // Both own the events in them. What is pending are the collected ones, and behind them those that have arrived. Counted
    // without end, each in one place only, so that neither needs a locked instruction; the difference is pending.
    alignas(CACHE_LINE) EventsType m_Collected;  // the owner's
    std::atomic<DWORD> m_dwTaken{0};             // the owner's
    alignas(CACHE_LINE) EventsType m_Arrived;    // under the derived queue's lock
    std::atomic<DWORD> m_dwPosted{0};            // under the lock
    CCmTimeValue m_tvCreated;
    std::atomic<DWORD> m_dwThreadId{0};  // 0: nobody owns the queue yet
    std::atomic<BOOL> m_bStopped{FALSE};
};

template <class Collect>
CmResult CCmEventQueueBase::PopPendingEvents(EventsType& aEvents, unsigned long aMaxCount, unsigned long* aRemain,
                                             Collect aCollect) {
    const BOOL bEnough = HasMoreThan(aMaxCount);
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
