#include "talvo/event/reactor_epoll.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <new>
#include <tuple>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/config.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/callback_guard.h"

namespace {

constexpr int MAX_REPORTS = 256;
constexpr int MAX_INPUTS = 4;            // calls of OnInput for one report, while the handler continues
constexpr DWORD MAX_ACCEPTS = 16;        // reports of a listening handle in one turn
constexpr int MAX_EVENT_BATCHES = 16;    // batches of events between two checks of the handles,
constexpr int64_t MAX_EVENT_USEC = 100;  // no batch starts later than this after the first
constexpr uint64_t WAKE_UP_DATA = UINT64_MAX;
constexpr uint64_t TICK_DATA = UINT64_MAX - 1;
constexpr DWORD DEFAULT_TICK_MSEC = 10;
constexpr int WAIT_FOR_TICK = -1;  // no time-out

using Guard = CCmMutexGuardT<CCmMutexThread>;

int64_t ReadTickUsec() {
    const DWORD dwMsec = get_uint32_param("Reactor", "TickMs", DEFAULT_TICK_MSEC);
    return int64_t{std::clamp<DWORD>(dwMsec, 1, 1000)} * 1000;
}

// CM_INVALID_HANDLE: it failed, see errno.
HANDLE MakeTick(int64_t aUsec) {
    const HANDLE fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (fd == CM_INVALID_HANDLE)
        return fd;
    const timespec interval{aUsec / 1'000'000, aUsec % 1'000'000 * 1000};
    const itimerspec tick{interval, interval};
    timerfd_settime(fd, 0, &tick, nullptr);
    return fd;
}

BOOL WatchByEdge(HANDLE aEpoll, HANDLE aFd, uint64_t aData) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = aData;
    return aFd != CM_INVALID_HANDLE && epoll_ctl(aEpoll, EPOLL_CTL_ADD, aFd, &event) == 0;
}

constexpr long OUT_MASK = ACmEventHandler::CONNECT_MASK | ACmEventHandler::WRITE_MASK;

// The number of bytes that can be read now; -1 for a handle without such a count.
int BytesReadable(HANDLE aFd) {
    int nBytes = 0;
    return ioctl(aFd, FIONREAD, &nBytes) == 0 ? nBytes : -1;
}

// The number of connections that a listening handle has; 0 also if the system does not count them, as for a path.
DWORD ConnectionsWaiting(HANDLE aFd) {
    tcp_info info{};
    socklen_t length = offsetof(tcp_info, tcpi_unacked) + sizeof info.tcpi_unacked;
    const BOOL bCounted = getsockopt(aFd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 && info.tcpi_state == TCP_LISTEN;
    return bCounted ? info.tcpi_unacked : 0;  // of a listener the connections that nobody has accepted
}

// TRUE: the handler has read before and is not registered for reading now.
BOOL IsPaused(const CCmEventHandlerRepository::CElement& aElement) {
    return aElement.m_bHasRead && !(aElement.m_nMask & ACmEventHandler::READ_MASK);
}

// TRUE: the connection is over for its handler. A hang-up always ends it; the peer's end of stream does so unless the handler
// reads that itself.
BOOL IsEnd(DWORD aEvents, const CCmEventHandlerRepository::CElement& aElement) {
    const BOOL bReadsIt = !!(aElement.m_nMask & ACmEventHandler::HALF_CLOSE_MASK);
    return !!(aEvents & (bReadsIt ? EPOLLHUP : EPOLLHUP | EPOLLRDHUP));
}

// Level-triggered: a handler that takes one datagram a report needs neither another receive nor a change of the watch. A
// handler that does not read would get a failure reported for ever, so it is watched edge-triggered.
DWORD WatchDatagrams(long aMask) {
    const DWORD dwRead = aMask & ACmEventHandler::READ_MASK ? DWORD{EPOLLIN} : DWORD{EPOLLET};
    return aMask & ACmEventHandler::WRITE_MASK ? dwRead | EPOLLOUT : dwRead;
}

}  // namespace

CCmReactorEpoll::CCmReactorEpoll() : m_llTickUsec(ReadTickUsec()), m_pReports(new (std::nothrow) epoll_event[MAX_REPORTS]) {
    OpenHandles_i();
}

CCmReactorEpoll::~CCmReactorEpoll() {
    CCmReactorBase::Close();
    CloseHandles_i();
}

// Called by the constructor too, because handles may be registered before Open. If there are no descriptors, Open tries again.
// Returns 0 or the errno. The watches are edge-triggered, so that the eventfd need not be read.
int CCmReactorEpoll::OpenHandles_i() {
    if (m_fdEpoll != CM_INVALID_HANDLE)
        return 0;
    errno = 0;
    m_fdEpoll = epoll_create1(EPOLL_CLOEXEC);
    if (m_fdEpoll != CM_INVALID_HANDLE && (m_fdWakeUp = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) != CM_INVALID_HANDLE &&
        (m_fdTick = MakeTick(m_llTickUsec)) != CM_INVALID_HANDLE && WatchByEdge(m_fdEpoll, m_fdWakeUp, WAKE_UP_DATA) &&
        WatchByEdge(m_fdEpoll, m_fdTick, TICK_DATA))
        return 0;
    const int nError = errno;
    CloseHandles_i();
    return nError;
}

void CCmReactorEpoll::CloseHandles_i() {
    for (HANDLE* pFd : {&m_fdTick, &m_fdWakeUp, &m_fdEpoll}) {
        if (*pFd != CM_INVALID_HANDLE)
            close(std::exchange(*pFd, CM_INVALID_HANDLE));
    }
}

CmResult CCmReactorEpoll::Open() {
    if (const int nError = OpenHandles_i(); nError != 0) {
        CM_ERROR_TRACE_THIS("CCmReactorEpoll::Open, no descriptor for epoll, eventfd or timerfd. err=" << nError);
        return CM_ERROR_UNEXPECTED;
    }
    if (!m_pReports)
        return CM_ERROR_OUT_OF_MEMORY;
    return CCmReactorBase::Open();
}

CmResult CCmReactorEpoll::Close() { return m_bRunning ? CM_ERROR_NOT_AVAILABLE : CCmReactorBase::Close(); }

CmResult CCmReactorEpoll::RunEventLoop() {
    if (!IsOwnThread_i("RunEventLoop"))
        return CM_ERROR_FAILURE;
    if (!IsOpen())
        return CM_ERROR_NOT_INITIALIZED;
    if (m_bRunning)
        return CM_ERROR_ALREADY_INITIALIZED;
    talvo::guard_callbacks([this] {
        while (!m_bStop.exchange(FALSE))
            Turn_i(m_llTickUsec);
    });
    return CM_OK;
}

CmResult CCmReactorEpoll::StopEventLoop() {
    m_bStop = TRUE;
    WakeUp_i();
    return CM_OK;
}

CmResult CCmReactorEpoll::RunOnce(const CCmTimeValue* aTimeout) {
    if (!IsOwnThread_i("RunOnce"))
        return CM_ERROR_FAILURE;
    if (!IsOpen())
        return CM_ERROR_NOT_INITIALIZED;
    if (m_bRunning)
        return CM_ERROR_ALREADY_INITIALIZED;
    const int64_t llWait = aTimeout ? std::clamp<int64_t>(aTimeout->GetTotalInUsec(), 0, m_llTickUsec) : m_llTickUsec;
    talvo::guard_callbacks([=, this] { Turn_i(llWait); });
    return CM_OK;
}

void CCmReactorEpoll::Turn_i(int64_t aMaxWaitUsec) {
    m_bRunning = TRUE;
    const int nWait = GetWaitMsec_i(aMaxWaitUsec);
    const int nReports = epoll_wait(m_fdEpoll, m_pReports.get(), MAX_REPORTS, nWait);
    m_bSleeping.store(FALSE, std::memory_order_relaxed);
    ++m_Counters.m_ullWakeUps;
    for (int i = 0; i < nReports; ++i)
        DispatchReport_i(m_pReports[i]);
    ProcessNotifications_i();
    ProcessEvents_i();
    ProcessTimerTick();
    m_bRunning = FALSE;
}

// Milliseconds for the wait, rounded up so that a timer is due after it. Sets m_bSleeping before it checks for work: a thread
// that adds work later reads it and wakes the loop.
int CCmReactorEpoll::GetWaitMsec_i(int64_t aMaxWaitUsec) {
    int64_t llWait = aMaxWaitUsec;
    int64_t llEarliest = 0;
    if (m_pTimerQueue->GetEarliestUsec(llEarliest))
        llWait = std::clamp<int64_t>(llEarliest - CCmClock::GetTimeOfDayUsec(), 0, llWait);
    if (llWait == 0 || m_Handlers.GetMarkedCount() > 0)
        return 0;
    m_bSleeping = TRUE;
    if (HasWork_i())
        return 0;
    return llWait >= m_llTickUsec ? WAIT_FOR_TICK : static_cast<int>((llWait + 999) / 1000);
}

BOOL CCmReactorEpoll::HasWork_i() { return m_bWakeUpUnderWay || m_bHasNotifications || m_bStop || GetPendingEventsCount() > 0; }

int CCmReactorEpoll::GetTimeout() {
    if (!IsOpen() || !IsOwnThread_i("GetTimeout"))
        return -1;
    m_bSleeping = TRUE;  // work that is added later makes the descriptor readable
    if (HasWork_i() || m_Handlers.GetMarkedCount() > 0)
        return 0;
    int64_t llEarliest = 0;
    if (!m_pTimerQueue->GetEarliestUsec(llEarliest))
        return -1;
    const int64_t llWait = std::max<int64_t>(llEarliest - CCmClock::GetTimeOfDayUsec(), 0);
    return static_cast<int>(std::min<int64_t>((llWait + 999) / 1000, INT_MAX));
}

// Leaves the descriptor readable if there is more to do, so that the other loop needs nothing else.
CmResult CCmReactorEpoll::RunOnce() {
    const CmResult rv = RunOnce(&CCmTimeValue::s_tvZero);
    if (rv != CM_OK)
        return rv;
    const BOOL bStopped = m_bStop.exchange(FALSE);
    if (GetTimeout() == 0)
        WakeUp_i();
    return bStopped ? CM_ERROR_NOT_AVAILABLE : CM_OK;
}

// Another loop that polls the descriptor has to read the time-out again.
CmResult CCmReactorEpoll::ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval, unsigned long aCount) {
    const CmResult rv = CCmReactorBase::ScheduleTimer(aEh, aArg, aInterval, aCount);
    WakeUp_i();
    return rv;
}

void CCmReactorEpoll::WakeUp_i() {
    if (!m_bSleeping || !m_bSleeping.exchange(FALSE))
        return;
    const uint64_t ullOne = 1;
    while (write(m_fdWakeUp, &ullOne, sizeof ullOne) == -1 && errno == EINTR) {
    }
}

void CCmReactorEpoll::DispatchReport_i(const epoll_event& aReport) {
    if (aReport.data.u64 == WAKE_UP_DATA) {
        ++m_Counters.m_ullWakeWrites;
        return;
    }
    if (aReport.data.u64 == TICK_DATA) {
        uint64_t ullTicks = 0;
        std::ignore = read(m_fdTick, &ullTicks, sizeof ullTicks);  // this starts the next tick
        return;
    }
    const HANDLE fd = static_cast<HANDLE>(aReport.data.u64 & 0xFFFFFFFF);
    CElement* pElement = m_Handlers.Find(fd);
    if (!pElement || pElement->m_dwBinding != aReport.data.u64 >> 32)
        return;  // an earlier report of this turn removed it, or its number was reused
    ReportBinding_i({fd, *pElement}, aReport.events);
    ProcessTimerTick();
}

void CCmReactorEpoll::ReportBinding_i(const CBinding& aBinding, DWORD aEvents) {
    const CElement& element = *aBinding.Get();
    if (const long lSpecial = element.m_nMask & (ACmEventHandler::ACCEPT_MASK | ACmEventHandler::CONNECT_MASK)) {
        ProcessBinding_i(aBinding, lSpecial);
        ProcessNotifications_i();  // an accepted connection may have marked itself
        ReportWaiting_i(aBinding);
        return;
    }
    // A failure of a datagram socket is received like a datagram: the handler decides whether the handle is still usable.
    const BOOL bDatagrams = !!(element.m_nMask & ACmEventHandler::DATAGRAM_MASK);
    if (!bDatagrams && (aEvents & EPOLLERR)) {
        ReportClose_i(aBinding, CM_ERROR_NETWORK_SOCKET_ERROR);
        return;
    }
    if (!bDatagrams && IsEnd(aEvents, element) && !IsPaused(element)) {
        ReportClose_i(aBinding, CM_ERROR_NETWORK_SOCKET_CLOSE);
        return;
    }
    if (aEvents & (bDatagrams ? EPOLLIN | EPOLLERR | EPOLLHUP : EPOLLIN))
        ReportIn_i(aBinding);
    if (!bDatagrams && (aEvents & EPOLLRDHUP))
        ReportIn_i(aBinding);  // reads the end of stream behind the last bytes; no further edge reports it
    if (aEvents & EPOLLOUT)
        ReportOut_i(aBinding);
}

// Reports the connections behind the first one, which saves a wait for each.
void CCmReactorEpoll::ReportWaiting_i(const CBinding& aBinding) {
    const CElement* pElement = aBinding.Get();
    if (!pElement || !pElement->m_bOneEach || !m_AcceptPace.IsWorthCounting(m_Counters.m_ullWakeUps))
        return;
    const DWORD dwWaiting = ConnectionsWaiting(aBinding.GetHandle());
    m_AcceptPace.OnCount(dwWaiting > 0);
    for (DWORD i = std::min(dwWaiting, MAX_ACCEPTS - 1); i > 0; --i) {
        ProcessTimerTick();
        if (!aBinding.Get())
            return;  // the handler has stopped
        ProcessBinding_i(aBinding, ACmEventHandler::ACCEPT_MASK);
        ProcessNotifications_i();
    }
}

// Calls a handler that continues again a few times at once, which saves a system call for each. Then the other handles get
// their turn, and the system checks whether there is more.
void CCmReactorEpoll::ReportIn_i(const CBinding& aBinding) {
    for (int i = 0; i < MAX_INPUTS; ++i) {
        const CElement* pElement = aBinding.Get();
        if (!pElement || !(pElement->m_nMask & ACmEventHandler::READ_MASK))
            return;  // removed or paused: reported again when the handler registers for reading
        const BOOL bDatagrams = !!(pElement->m_nMask & ACmEventHandler::DATAGRAM_MASK);
        if (ProcessBinding_i(aBinding, ACmEventHandler::READ_MASK) != CM_OK || bDatagrams)
            return;
    }
    const CElement* pElement = aBinding.Get();
    if (pElement && (pElement->m_nMask & ACmEventHandler::READ_MASK))
        OnHandleMaskAdded(aBinding.GetHandle());
}

void CCmReactorEpoll::ReportOut_i(const CBinding& aBinding) {
    const CElement* pElement = aBinding.Get();
    if (!pElement)
        return;
    if (pElement->m_nMask & ACmEventHandler::WRITE_MASK)
        ProcessBinding_i(aBinding, ACmEventHandler::WRITE_MASK);
    else if (!(pElement->m_nMask & ACmEventHandler::DATAGRAM_MASK))
        OnHandleMaskAdded(aBinding.GetHandle());  // it no longer waits for room: one report is enough
}

void CCmReactorEpoll::ReportClose_i(const CBinding& aBinding, CmResult aReason) {
    int nRemain = 0;
    if (!DrainBeforeClose_i(aBinding, aReason, nRemain))
        return;
    m_bOrderlyEnd = aReason == CM_ERROR_NETWORK_SOCKET_CLOSE && nRemain == 0;
    ProcessBinding_i(aBinding, ACmEventHandler::CLOSE_MASK);
    m_bOrderlyEnd = FALSE;
}

// Reads the bytes that arrived before the close. TRUE: report the close; aRemain (out): as BytesReadable. FALSE: the handler is
// gone, or it has paused reading; then the close and the bytes wait until it resumes. A failed connection does not wait: the
// event that would end the pause may never come.
BOOL CCmReactorEpoll::DrainBeforeClose_i(const CBinding& aBinding, CmResult aReason, int& aRemain) {
    const HANDLE fd = aBinding.GetHandle();
    int nBefore = INT_MAX;
    for (aRemain = BytesReadable(fd); aRemain > 0 && aRemain < nBefore; aRemain = BytesReadable(fd)) {
        const CElement* pElement = aBinding.Get();
        if (!(pElement->m_nMask & ACmEventHandler::READ_MASK))
            return !IsPaused(*pElement) || aReason == CM_ERROR_NETWORK_SOCKET_ERROR;
        CM_WARNING_TRACE_THIS(
            "CCmReactorWin32Message::Win32SocketWndProc, data remained in the handle wehn closing, recv it. dwRemain="
            << aRemain);
        nBefore = aRemain;
        ProcessBinding_i(aBinding, ACmEventHandler::READ_MASK);
        if (!aBinding.Get())
            return FALSE;
    }
    // Reached also if a report consumed nothing: the close cannot wait for that.
    return !IsPaused(*aBinding.Get()) || aReason == CM_ERROR_NETWORK_SOCKET_ERROR;
}

// In the reactor's thread the mark is stored in the registration and needs no memory: for the handler this may be the only
// report to come.
CmResult CCmReactorEpoll::NotifyHandler(ACmEventHandler* aEh, long aMask) {
    if (!aEh) {
        WakeUp_i();
        return CM_OK;
    }
    if (m_Est.IsCurrentThread()) {
        const HANDLE fd = aEh->GetHandle();
        const CElement* pElement = m_Handlers.Find(fd);
        if (pElement && pElement->m_pEh == aEh)
            m_Handlers.Mark(fd, aMask);
        WakeUp_i();  // another loop may poll the descriptor
        return CM_OK;
    }
    {
        Guard guard(m_NotificationMutex);
        if (!AddNotification_l(aEh, aMask))
            return CM_ERROR_OUT_OF_MEMORY;
        m_bHasNotifications = TRUE;
    }
    WakeUp_i();
    return CM_OK;
}

BOOL CCmReactorEpoll::AddNotification_l(ACmEventHandler* aEh, long aMask) {
    auto* const pNotifications = &m_Notifications;
    return talvo::WithMemory([&] { pNotifications->push_back({aEh, aEh->GetHandle(), aMask}); });
}

// Adds the notifications of other threads to the marks. Runs only the current marks: a handler that marks itself again waits
// for the next accept of this turn or for the next turn.
void CCmReactorEpoll::ProcessNotifications_i() {
    if (m_bHasNotifications && m_bHasNotifications.exchange(FALSE)) {
        std::vector<CNotification> notifications;
        {
            Guard guard(m_NotificationMutex);
            notifications.swap(m_Notifications);
        }
        for (const CNotification& notification : notifications) {
            const CElement* pElement = m_Handlers.Find(notification.m_Fd);
            if (pElement && pElement->m_pEh == notification.m_pEh)
                m_Handlers.Mark(notification.m_Fd, notification.m_lMask);
        }
    }
    long lMask = 0;
    for (size_t nMarked = m_Handlers.GetMarkedCount(); nMarked > 0; --nMarked) {
        const HANDLE fd = m_Handlers.TakeMarked(lMask);
        if (fd == CM_INVALID_HANDLE)
            return;
        ProcessHandleEvent(fd, lMask, CM_OK, TRUE, FALSE);
        ProcessTimerTick();
    }
}

// Runs several batches a turn, so that a burst of posts needs fewer waits, and checks the timers between them. If events take
// long, as a connect does, the time limit lets the handles run. The last turn runs all events that were posted before the stop.
void CCmReactorEpoll::ProcessEvents_i() {
    int64_t llEnd = 0;
    for (int i = 0; i < MAX_EVENT_BATCHES; ++i) {
        if (!m_bWakeUpUnderWay && GetPendingEventsCount() == 0)
            return;
        const int64_t llNow = CCmClock::GetTimeOfDayUsec();
        if (i == 0)
            llEnd = llNow + MAX_EVENT_USEC;
        else if (llNow >= llEnd && !m_bStop)
            return;
        if (ProcessHandleEvent(CM_INVALID_HANDLE, ACmEventHandler::EVENTQUEUE_MASK, CM_OK, TRUE, FALSE) == CM_ERROR_NOT_FOUND)
            return;
        ProcessTimerTick();
    }
}

int CCmReactorEpoll::Watch_i(int aOperation, HANDLE aFd, long aMask, DWORD aBinding) {
    epoll_event event{};
    if (aMask & ACmEventHandler::ACCEPT_MASK)
        event.events = EPOLLIN;
    else if (aMask & ACmEventHandler::DATAGRAM_MASK)
        event.events = WatchDatagrams(aMask);
    else
        event.events = EPOLLIN | EPOLLRDHUP | EPOLLET | (aMask & OUT_MASK ? DWORD{EPOLLOUT} : 0);
    event.data.u64 = uint64_t{aBinding} << 32 | static_cast<DWORD>(aFd);
    return epoll_ctl(m_fdEpoll, aOperation, aFd, &event);
}

CmResult CCmReactorEpoll::OnHandleRegister(HANDLE aFd, long aMask, ACmEventHandler*) {
    const DWORD dwBinding = m_Handlers.GetNextBinding();
    if (Watch_i(EPOLL_CTL_ADD, aFd, aMask, dwBinding) == 0)
        return CM_OK;
    if (errno == EEXIST && Watch_i(EPOLL_CTL_MOD, aFd, aMask, dwBinding) == 0)  // removed, and not closed yet
        return CM_OK;
    CM_ERROR_TRACE_THIS("CCmReactorEpoll::OnHandleRegister, epoll_ctl() failed! aFd=" << aFd << " err=" << errno);
    return CM_ERROR_UNEXPECTED;
}

// A change of the watch, even to the same value, makes the system check the handle again and report existing readiness.
CmResult CCmReactorEpoll::OnHandleMaskAdded(HANDLE aFd) {
    const CElement* pElement = m_Handlers.Find(aFd);
    int nRv = Watch_i(EPOLL_CTL_MOD, aFd, pElement->m_nMask, pElement->m_dwBinding);
    if (nRv == -1 && errno == ENOENT)  // the handle was closed and reused without a removal
        nRv = Watch_i(EPOLL_CTL_ADD, aFd, pElement->m_nMask, pElement->m_dwBinding);
    if (nRv != -1)
        return CM_OK;
    CM_ERROR_TRACE_THIS("CCmReactorEpoll::OnHandleMaskAdded, epoll_ctl() failed! aFd=" << aFd << " err=" << errno);
    return CM_ERROR_UNEXPECTED;
}

CmResult CCmReactorEpoll::OnHandleRemoved(HANDLE aFd) {
    epoll_ctl(m_fdEpoll, EPOLL_CTL_DEL, aFd, nullptr);  // fails without harm if the handle was closed too early
    return OnHandleClosing(aFd);
}

// If the handle has a duplicate, the system still watches that one. Its reports are dropped, as those of an old binding, and
// they come once an edge.
CmResult CCmReactorEpoll::OnHandleClosing(HANDLE aFd) {
    if (m_bHasNotifications) {
        Guard guard(m_NotificationMutex);
        std::erase_if(m_Notifications, [=](const CNotification& a) { return a.m_Fd == aFd; });
    }
    return CM_OK;
}
