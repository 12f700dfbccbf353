// The reactor for Linux.
#pragma once

#include <memory>
#include <vector>

#include "talvo/base/mutex.h"
#include "talvo/event/accept_pace.h"
#include "talvo/event/embedded_loop.h"
#include "talvo/event/reactor_base.h"

struct epoll_event;

// Handles are watched edge-triggered for reading and writing at once, so that a message costs no system calls but the wait, the
// receive and the send. No edge is lost. A handler that returns 0 from OnInput ("continue") is called again if there is more to
// read. Kinds that are added to a mask are reported if they are ready. Handles of datagrams are watched level-triggered, and
// for writing only on request, because the system reports room after each datagram that has left. Listening handles are also
// level-triggered; while connections come in bursts, a turn reports up to 16 of those that wait.
//
// One turn of the loop: wait; readiness reports, with a check of the timers after each; notifications; events; timers. The loop
// wakes at least once a tick (10 ms; configuration key "TickMs" in section "Reactor") and then runs its events, so that sent
// events, which do not wake it, wait no longer than a tick. Other threads wake it through an eventfd, only while it sleeps.
class TALVO_API CCmReactorEpoll : public CCmReactorBase, public ICmEmbeddedLoop {
public:
    CCmReactorEpoll();  // not open
    ~CCmReactorEpoll() override;

    // CM_ERROR_UNEXPECTED: the system has no free descriptor. A later call may succeed.
    CmResult Open() override;
    CmResult NotifyHandler(ACmEventHandler* aEh, long aMask) override;
    CmResult RunEventLoop() override;
    CmResult StopEventLoop() override;
    CmResult Close() override;
    CmResult ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval, unsigned long aCount) override;
    CmBool IsOrderlyEnd() const override { return m_bOrderlyEnd; }

    CmHandle GetPollHandle() const override { return m_fdEpoll; }
    int GetTimeout() override;
    CmResult RunOnce() override;
    // Runs one turn of the loop, which waits at most aTimeout (null, or longer: one tick). A pending stop stays pending.
    // Owner's thread. Results as RunEventLoop.
    CmResult RunOnce(const CCmTimeValue* aTimeout);

protected:
    CmResult OnHandleRemoved(CmHandle aFd) override;
    CmResult OnHandleClosing(CmHandle aFd) override;
    CmResult OnHandleRegister(CmHandle aFd, long aMask, ACmEventHandler* aEh) override;
    CmResult OnHandleMaskAdded(CmHandle aFd) override;

private:
    struct CNotification {
        ACmEventHandler* m_pEh;
        CmHandle m_Fd;
        long m_lMask;
    };

    int OpenHandles_i();
    void CloseHandles_i();
    void Turn_i(int64_t aMaxWaitUsec);
    int GetWaitMsec_i(int64_t aMaxWaitUsec);
    CmBool HasWork_i();
    void DispatchReport_i(const epoll_event& aReport);
    void ReportBinding_i(const CBinding& aBinding, CmDword aEvents);
    void ReportWaiting_i(const CBinding& aBinding);
    void ReportIn_i(const CBinding& aBinding);
    void ReportOut_i(const CBinding& aBinding);
    void ReportClose_i(const CBinding& aBinding, CmResult aReason);
    CmBool DrainBeforeClose_i(const CBinding& aBinding, CmResult aReason, int& aRemain);
    void ProcessNotifications_i();
    void ProcessEvents_i();
    int Watch_i(int aOperation, CmHandle aFd, long aMask, CmDword aBinding);
    void WakeUp_i();
    CmBool AddNotification_l(ACmEventHandler* aEh, long aMask) CM_REQUIRES(m_NotificationMutex);

    CmHandle m_fdEpoll = CM_INVALID_HANDLE;  // this and the next two are valid together
    CmHandle m_fdWakeUp = CM_INVALID_HANDLE;
    CmHandle m_fdTick = CM_INVALID_HANDLE;  // a system timer, so that a wait needs no time-out of its own
    const int64_t m_llTickUsec;
    talvo::CAcceptPace m_AcceptPace;
    std::unique_ptr<epoll_event[]> m_pReports;  // null: memory ran out
    CmBool m_bRunning = CM_FALSE;               // a turn is under way
    CmBool m_bOrderlyEnd = CM_FALSE;            // the report under way is the peer's end, and the handle is empty
    std::atomic<CmBool> m_bStop{CM_FALSE};      // a stop ends one run, which may start later
    std::atomic<CmBool> m_bSleeping{CM_FALSE};  // in the system's wait, or about to enter it, or another loop polls m_fdEpoll

    CCmMutexThread m_NotificationMutex;
    std::vector<CNotification> m_Notifications CM_GUARDED_BY(m_NotificationMutex);
    std::atomic<CmBool> m_bHasNotifications{CM_FALSE};
};
