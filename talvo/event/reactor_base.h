// The part of a reactor that does not depend on how the system watches handles.
#pragma once

#include <atomic>
#include <memory>

#include "talvo/event/event_handler_repository.h"
#include "talvo/event/event_queue_using_mutex.h"
#include "talvo/event/reactor.h"
#include "talvo/event/timer_queue_base.h"

// Counts since the reactor was created. Read it in the reactor's thread.
struct CCmReactorCounters {
    uint64_t m_ullWakeUps = 0;     // returns from the system's wait
    uint64_t m_ullReports = 0;     // readiness reports dispatched
    uint64_t m_ullEvents = 0;      // posted and sent events that ran
    uint64_t m_ullTimers = 0;      // timers that fired
    uint64_t m_ullWakeWrites = 0;  // system calls of other threads that woke the loop; a hint
};

// Keeps the handlers and their masks, dispatches one report at a time, runs events and timers. A concrete reactor watches
// handles, runs and wakes the loop, and passes reports to ProcessHandleEvent and ProcessTimerTick.
class TALVO_API CCmReactorBase : public ICmReactor {
public:
    // aProperty: bits of ICmReactor::PROPERTY_...
    explicit CCmReactorBase(CmDword aProperty = 0);
    ~CCmReactorBase() override;
    CCmReactorBase(const CCmReactorBase&) = delete;
    CCmReactorBase& operator=(const CCmReactorBase&) = delete;

    CmResult Open() override;
    CmResult RegisterHandler(ACmEventHandler* aEh, long aMask) override;
    CmResult RemoveHandler(ACmEventHandler* aEh, long aMask) override;
    CmResult Close() override;
    CmDword GetProperty() const override { return m_dwProperty; }

    CmResult ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval, unsigned long aCount) override;
    CmResult CancelTimer(ICmTimerHandler* aEh) override;

    // A post wakes the loop unless a wake-up is under way.
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) override;
    CmResult PostEventQuietly(ICmEvent* aEvent) override { return m_EventQueue.PostEvent(aEvent); }
    // Kept on purpose: a sent event does not wake the loop and runs after its next wake-up. For a fast answer post the event.
    CmResult SendEvent(ICmEvent* aEvent) override { return m_EventQueue.SendEvent(aEvent); }
    CmDword GetPendingEventsCount() override { return m_EventQueue.GetPendingEventsCount(); }

    // Processes one readiness report of the concrete reactor. An aFd of CM_INVALID_HANDLE means the event queue: at most 5
    // events run, and the loop is notified if more are left (CM_ERROR_NOT_FOUND: there was none). aReason is the reason for
    // CLOSE_MASK. aIsNotify: the report comes from NotifyHandler. aDropConnect: the report may be late, so a finished connect
    // is not reported. CM_OK: continue. CM_ERROR_WOULD_BLOCK: the handler waits for the next readiness. CM_ERROR_NOT_FOUND: not
    // registered. CM_ERROR_FAILURE: the handler is no longer registered, or another one is.
    CmResult ProcessHandleEvent(CmHandle aFd, long aMask, CmResult aReason, CmBool aIsNotify, CmBool aDropConnect);

    // Fires the due timers. CM_ERROR_NOT_INITIALIZED: before Open.
    CmResult ProcessTimerTick();

    const CCmReactorCounters& GetCounters() const { return m_Counters; }  // read them in its thread

protected:
    // Stops watching a handle.
    virtual CmResult OnHandleRemoved(CmHandle aFd) = 0;
    // Likewise, but its handler closes it next, which ends the watch too. The default is OnHandleRemoved.
    virtual CmResult OnHandleClosing(CmHandle aFd);
    // Starts to watch a handle for the kinds in aMask, and always for close. CM_ERROR_UNEXPECTED: that fails. aMask may have
    // flags above ALL_EVENTS_MASK from the caller of RegisterHandler. After OnHandleClosing the handle may be watched still.
    virtual CmResult OnHandleRegister(CmHandle aFd, long aMask, ACmEventHandler* aEh) = 0;
    // A watched handle has new kinds or another handler: report the readiness that exists already. For a handle of datagrams:
    // its kinds have changed in any way. CM_ERROR_UNEXPECTED: that fails.
    virtual CmResult OnHandleMaskAdded(CmHandle aFd);

    using CElement = CCmEventHandlerRepository::CElement;
    using CBinding = CCmEventHandlerRepository::CBinding;

    // As ProcessHandleEvent, for a binding that was found already and has not ended.
    CmResult ProcessBinding_i(const CBinding& aBinding, long aMask, CmBool aIsNotify = CM_FALSE,
                              CmBool aDropConnect = CM_FALSE);

    CmBool IsOpen() const { return m_pTimerQueue != nullptr; }
    // FALSE, with a trace line: another thread calls an operation that belongs to the reactor's thread.
    CmBool IsOwnThread_i(const char* aCall) const;

    CCmEnsureSingleThread m_Est;
    CCmEventQueueUsingMutex m_EventQueue;
    CCmEventHandlerRepository m_Handlers;
    std::unique_ptr<CCmTimerQueueBase> m_pTimerQueue;  // exists from Open to Close

    static constexpr size_t CACHE_LINE = 64;  // every post reads the flag, and the loop writes the data around it
    // The loop was notified of events and has not run them yet.
    alignas(CACHE_LINE) std::atomic<CmBool> m_bWakeUpUnderWay{CM_FALSE};
    alignas(CACHE_LINE) CCmReactorCounters m_Counters;

private:
    CmResult RemoveHandleWithoutFinding_i(CmHandle aFd, CElement& aElement, long aMask);
    CmResult ProcessEventQueue_i();
    CmResult Dispatch_i(const CBinding& aBinding, long aReady);

    const CmDword m_dwProperty;
    CmBool m_bClosed = CM_FALSE;
};
