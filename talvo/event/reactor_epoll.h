// The reactor of Linux.
#pragma once

#include <memory>
#include <vector>

#include "talvo/base/mutex.h"
#include "talvo/event/reactor_base.h"

struct epoll_event;

// Handles are watched edge-triggered for reading and writing at once, so a message costs no system call but the wait, the
// receive and the send. No edge is lost: a handler that returns 0 from OnInput ("go on") is asked again if there really is
// something to read, kinds that are added to a mask are reported if they are ready. Handles of datagrams are watched
// level-triggered, and for writing only while their handler asks for it, because the system reports room after each datagram
// that has left. Listening handles are watched level-triggered, too.
//
// One turn of the loop: wait; every readiness report, each followed by a look at the timers; notifications; events; timers. The
// loop wakes at least every tick (10 ms; configuration key "TickMs" in section "Reactor"), and then looks at its events, so
// that sent ones, which wake nobody, do not wait longer. Other threads wake it through an eventfd, and only while it sleeps.
class TALVO_API CCmReactorEpoll : public CCmReactorBase {
public:
    CCmReactorEpoll();
    ~CCmReactorEpoll() override;

    // CM_ERROR_UNEXPECTED: the system has no descriptor left for it; it may be called again.
    CmResult Open() override;
    CmResult NotifyHandler(ACmEventHandler* aEh, long aMask) override;
    CmResult RunEventLoop() override;
    CmResult StopEventLoop() override;
    CmResult Close() override;

    // One turn of the loop that waits at most aTimeout (null, or longer: a tick). For an application that has a loop of its own
    // and for tests; the owner's thread. Results as RunEventLoop.
    CmResult RunOnce(const CCmTimeValue* aTimeout = nullptr);

protected:
    CmResult OnHandleRemoved(HANDLE aFd) override;
    CmResult OnHandleRegister(HANDLE aFd, long aMask, ACmEventHandler* aEh) override;
    void OnHandleMaskAdded(HANDLE aFd) override;

private:
    struct CNotification {
        ACmEventHandler* m_pEh;
        HANDLE m_Fd;
        long m_lMask;
    };

    int OpenHandles_i();
    void CloseHandles_i();
    void Turn_i(int64_t aMaxWaitUsec);
    int GetWaitMsec_i(int64_t aMaxWaitUsec);
    void DispatchReport_i(const epoll_event& aReport);
    void ReportIn_i(HANDLE aFd, DWORD aBinding);
    void ReportDatagrams_i(HANDLE aFd, DWORD aBinding, DWORD aEvents);
    void ReportClose_i(HANDLE aFd, DWORD aBinding, CmResult aReason);
    BOOL DrainBeforeClose_i(HANDLE aFd, DWORD aBinding, CmResult aReason);
    void ProcessNotifications_i();
    void ProcessEvents_i();
    CCmEventHandlerRepository::CElement* FindBinding_i(HANDLE aFd, DWORD aBinding);
    int Watch_i(int aOperation, HANDLE aFd, long aMask, DWORD aBinding);
    void WakeUp_i();
    BOOL AddNotification_l(ACmEventHandler* aEh, long aMask) CM_REQUIRES(m_NotificationMutex);

    HANDLE m_fdEpoll = CM_INVALID_HANDLE;  // this and the next two are there together
    HANDLE m_fdWakeUp = CM_INVALID_HANDLE;
    HANDLE m_fdTick = CM_INVALID_HANDLE;  // a timer of the system, so that a wait does not have to set one
    const int64_t m_llTickUsec;
    std::unique_ptr<epoll_event[]> m_pReports;  // null: there was no memory
    BOOL m_bRunning = FALSE;                    // a turn is under way
    std::atomic<BOOL> m_bStop{FALSE};           // each stop ends one run, also one that has not begun
    std::atomic<BOOL> m_bSleeping{FALSE};       // in the system's wait, or about to enter it

    CCmMutexThread m_NotificationMutex;
    std::vector<CNotification> m_Notifications CM_GUARDED_BY(m_NotificationMutex);
    std::atomic<BOOL> m_bHasNotifications{FALSE};
};
