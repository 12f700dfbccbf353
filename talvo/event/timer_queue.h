// The interfaces of one thread's timers.
#pragma once

#include <atomic>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/time_value.h"

// Called when its timer is due, in the thread of the timer queue, with no lock held. It may cancel or reschedule itself,
// schedule others, and be deleted inside: the queue does not touch it afterwards. It must not throw.
class TALVO_API ICmTimerHandler {
public:
    ICmTimerHandler() = default;
    // A copy has no timer, whether or not the original has one.
    ICmTimerHandler(const ICmTimerHandler&) {}
    ICmTimerHandler& operator=(const ICmTimerHandler&) { return *this; }

    // aCurTime is the start of the pass on the clock of CCmTimeValue::GetTimeOfDay. aArg is the one of ScheduleTimer.
    virtual void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) = 0;
    virtual ~ICmTimerHandler();

private:
    friend class CCmTimerQueueOrderedList;
    // The number of the first ordered queue that took the handler, and the slot there, so that the queue finds the timer
    // without a search. 0: none has taken it. Atomic, because queues of several threads may take a handler.
    std::atomic<uint64_t> m_ullSlot{0};
};

// A handler that deletes an object, see CCmTimerDeleteT. Its timer is a place in a list and needs no memory: otherwise the
// object would have to be deleted during a call on it.
class TALVO_API CCmTimerDelete : public ICmTimerHandler {
private:
    friend class CCmTimerQueueBase;
    CCmTimerDelete* m_pNext = nullptr;  // in its queue; the last one points to itself; null: in none
};

// The timers of one thread, used only there, hence no lock. The key is the handler: each has at most one pending timer in a
// queue. Handlers are not owned: each cancels its timer before it is deleted.
class TALVO_API ICmTimerQueue {
public:
    // Calls aEh->OnTimeout after aInterval, aCount times (0: until cancelled), every aInterval. Missed periods are skipped and
    // not fired in a burst. An interval of zero or less with count 1 fires at the next turn of the loop. CM_OK: new.
    // CM_ERROR_FOUND: replaced aEh's timer; also a success. CM_ERROR_INVALID_ARG: aEh is null, or aInterval is not positive and
    // aCount is not 1. CM_ERROR_NOT_INITIALIZED: a reactor that is not open. CM_ERROR_OUT_OF_MEMORY: nothing is scheduled; a
    // timer that aEh had stays. CM_ERROR_FAILURE: called in another thread than the queue's; nothing changes.
    virtual CmResult ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval, unsigned long aCount) = 0;

    // CM_OK. CM_ERROR_NOT_FOUND: it has no timer. CM_ERROR_INVALID_ARG: null. CM_ERROR_NOT_INITIALIZED and CM_ERROR_FAILURE as
    // above.
    virtual CmResult CancelTimer(ICmTimerHandler* aEh) = 0;

    virtual ~ICmTimerQueue();
};

// Notified by an object that it observes, such as a timer queue that is no longer empty.
class TALVO_API ICmObserver {
public:
    // aTopic: the kind of news, a literal of the sender. aData: as the sender documents it.
    virtual void OnObserve(const char* aTopic, void* aData = nullptr) = 0;
    virtual ~ICmObserver();
};
