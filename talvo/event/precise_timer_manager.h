// Timers for threads without a reactor.
#pragma once

#include <atomic>

#include "talvo/base/clean_up.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/event/thread_link.h"
#include "talvo/event/timer_queue_calendar.h"

namespace talvo {
class CPreciseTimers;
}

// The calendar of one event queue, with slots of 10 ms and a wheel of two hours. Schedule and cancel in the thread of that
// event queue only; the first schedule binds the calendar to the calling thread. A timer is never early, and late by at most 10
// ms and the time that its event waits in the event queue. One of 7,199.98 s or more is traced and fires after one turn of the
// wheel.
//
//   this queue                  threads without a reactor; 100,000 coarse timers: each operation is O(1)
//   the queue of a reactor      precision of 1 ms, and O(log n)
//   the queue of CCmThreadTask  likewise, as long as the thread returns to its loop in time
//
// Counted: GetTimerQueue adds a reference for its caller, and the last release ends the calendar and its timers: at once in the
// thread of the event queue; called in another thread, by an event of that thread, before which timers may still fire. Any
// thread may add and release references. The end of the thread ends its calendar, too: it then fires nothing and refuses
// timers, and still has to be released. The same holds after the clean-up of singletons, except that ticks under way still run.
//
// The event queue is not owned. The calendar posts to it from the first schedule until the end of the thread, or until the last
// release and the event by which that ends the calendar. The thread classes of the library keep their event queues as long. An
// ACmThread of the application calls CloseLink in its thread before it deletes its event queue. Before the first schedule and
// after the end of the thread, the calendar compares the address of the event queue and does not use it.
class TALVO_API CCmPreciseTimerQueue final : public CCmTimerQueueCalendar, private CCmThreadTenant {
public:
    CmDword AddReference();  // the new count
    // Inside OnTimeout, too: no other timer of the calendar fires then.
    CmDword ReleaseReference();

    // As ICmTimerQueue. CM_ERROR_FAILURE: the caller is not the registered thread of the event queue; a thread is registered
    // after its OnThreadInit and until Destory. CM_ERROR_NOT_INITIALIZED: that thread has ended, or the singletons were cleaned
    // up.
    CmResult ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval, unsigned long aCount) override;
    // As ICmTimerQueue. CM_ERROR_NOT_FOUND in any thread before the first schedule.
    CmResult CancelTimer(ICmTimerHandler* aEh) override;

private:
    friend class talvo::CPreciseTimers;

    // Deletes the calendar outside of its callbacks.
    class CDeletion final : public ICmEvent {
    public:
        explicit CDeletion(CCmPreciseTimerQueue& aQueue) : m_Queue(aQueue) {}
        CmResult OnEventFire() override { return CM_OK; }
        void OnDestorySelf() override { delete &m_Queue; }

    private:
        CCmPreciseTimerQueue& m_Queue;
    };

    // Null: memory ran out.
    static CCmPreciseTimerQueue* Create_i(talvo::CPreciseTimers& aTimers, ICmEventQueue& aQueue);
    CCmPreciseTimerQueue(talvo::CPreciseTimers& aTimers, ICmEventQueue& aQueue);
    ~CCmPreciseTimerQueue() override;

    CmResult Bind_i();
    void End_i();
    void OnThreadEnd() override;
    void OnTicked_i() override;

    const CCmRefPtrT<talvo::CPreciseTimers> m_pTimers;
    CmDword m_dwReferences = 1;         // the mutex of m_pTimers guards it
    std::atomic<bool> m_bBound{false};  // to a thread, which alone uses it
    std::atomic<bool> m_bEnded{false};  // the thread has ended
    std::atomic<bool> m_bArmed{false};  // the beat ticks it
    CDeletion m_Deletion{*this};
};

// The process's precise timers: one thread, started with the first calendar and ended with the last one, ticks all calendars
// that have timers. It sleeps without wake-ups while none has. The thread manager neither lists nor stops it. Any thread.
class TALVO_API CCmPreciseTimerManager : public CCmCleanUpBase {
public:
    // The first call creates it. Null: memory ran out.
    static CCmPreciseTimerManager* Instance();

    // The calendar of aQueue; null: of the calling thread's event queue. The caller releases it. The same calendar for each
    // call with that queue, until its last release or the end of its thread. Null: the calling thread has no event queue, or
    // memory, descriptors or threads ran out; a trace line has the cause.
    CCmPreciseTimerQueue* GetTimerQueue(ICmEventQueue* aQueue = nullptr);

protected:
    ~CCmPreciseTimerManager() override;

private:
    CCmPreciseTimerManager();

    const CCmRefPtrT<talvo::CPreciseTimers> m_pTimers;  // null: memory ran out
};
