// Everything of a reactor that does not depend on how handles are watched.
#pragma once

#include <atomic>
#include <memory>

#include "talvo/event/event_handler_repository.h"
#include "talvo/event/event_queue_using_mutex.h"
#include "talvo/event/reactor.h"
#include "talvo/event/timer_queue_base.h"

// What passed through a reactor since it was made; read it in its thread.
struct CCmReactorCounters {
    uint64_t m_ullWakeUps = 0;     // returns of the system's wait
    uint64_t m_ullReports = 0;     // readiness reports dispatched
    uint64_t m_ullEvents = 0;      // posted and sent events run
    uint64_t m_ullTimers = 0;      // timers fired
    uint64_t m_ullWakeWrites = 0;  // wake-ups asked of the system by other threads; a hint
};

// Keeps the repository of handlers and their masks, dispatches one report, runs posted events and timers. A concrete reactor
// watches handles, runs the loop, wakes it, and feeds reports into ProcessHandleEvent and ProcessTimerTick.
class TALVO_API CCmReactorBase : public ICmReactor {
public:
    // aProperty: bits of ICmReactor::PROPERTY_...
    explicit CCmReactorBase(DWORD aProperty = 0);
    ~CCmReactorBase() override;
    CCmReactorBase(const CCmReactorBase&) = delete;
    CCmReactorBase& operator=(const CCmReactorBase&) = delete;

    CmResult Open() override;
    CmResult RegisterHandler(ACmEventHandler* aEh, long aMask) override;
    CmResult RemoveHandler(ACmEventHandler* aEh, long aMask) override;
    CmResult Close() override;
    DWORD GetProperty() const override { return m_dwProperty; }

    CmResult ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval, unsigned long aCount) override;
    CmResult CancelTimer(ICmTimerHandler* aEh) override;

    // A post wakes the loop unless a wake-up is under way.
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) override;
    CmResult PostEventQuietly(ICmEvent* aEvent) override { return m_EventQueue.PostEvent(aEvent); }
    // Kept on purpose: a sent event wakes nobody and runs with the loop's next wake-up. Post where an answer must come fast.
    CmResult SendEvent(ICmEvent* aEvent) override { return m_EventQueue.SendEvent(aEvent); }
    DWORD GetPendingEventsCount() override { return m_EventQueue.GetPendingEventsCount(); }

    // One readiness report, from the concrete reactor. aFd of CM_INVALID_HANDLE stands for the event queue: at most 5 events
    // run, and the loop is notified when more are left (CM_ERROR_NOT_FOUND: there was none). aReason says why with CLOSE_MASK.
    // aIsNotify: asked for with NotifyHandler. aDropConnect: the report may be late, a finished connect is not to be told.
    // CM_OK: go on. CM_ERROR_WOULD_BLOCK: the handler waits for the next readiness. CM_ERROR_NOT_FOUND: not registered.
    // CM_ERROR_FAILURE: the handler is no longer registered, or another one is.
    CmResult ProcessHandleEvent(HANDLE aFd, long aMask, CmResult aReason, BOOL aIsNotify, BOOL aDropConnect);

    // Fires due timers. CM_ERROR_NOT_INITIALIZED before Open.
    CmResult ProcessTimerTick();

    const CCmReactorCounters& GetCounters() const { return m_Counters; }

protected:
    // A handle is no longer watched.
    virtual CmResult OnHandleRemoved(HANDLE aFd) = 0;
    // Starts to watch a handle for the kinds in aMask and always for close; CM_ERROR_UNEXPECTED when that fails. aMask may
    // carry flags above ALL_EVENTS_MASK that the caller of RegisterHandler gave.
    virtual CmResult OnHandleRegister(HANDLE aFd, long aMask, ACmEventHandler* aEh) = 0;
    // A watched handle is now registered for kinds that it was not registered for, or with another handler: report what is
    // ready already. A handle of datagrams: its kinds have changed, in whatever way.
    virtual void OnHandleMaskAdded(HANDLE aFd);

    BOOL IsOpen() const { return m_pTimerQueue != nullptr; }
    // FALSE, and a line in the trace: a call that belongs to the reactor's thread comes from another one.
    BOOL IsOwnThread_i(const char* aCall) const;

    CCmEnsureSingleThread m_Est;
    CCmEventQueueUsingMutex m_EventQueue;
    CCmEventHandlerRepository m_Handlers;
    std::unique_ptr<CCmTimerQueueBase> m_pTimerQueue;  // from Open to Close
    std::atomic<BOOL> m_bWakeUpUnderWay{FALSE};        // the loop was notified of events and has not looked yet
    CCmReactorCounters m_Counters;

private:
    CmResult RemoveHandleWithoutFinding_i(HANDLE aFd, const CCmEventHandlerRepository::CElement& aElement, long aMask);
    CmResult ProcessEventQueue_i();
    CmResult Dispatch_i(HANDLE aFd, ACmEventHandler* aEh, long aReady);

    const DWORD m_dwProperty;
    BOOL m_bClosed = FALSE;
};
