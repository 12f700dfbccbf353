#include "talvo/event/reactor_base.h"

#include <new>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/event/timer_queue_ordered_list.h"

namespace {

CCmLiveCounter s_Live("CCmReactorBase");

// Passed to the concrete reactor unchanged.
constexpr long FLAG_MASK = ACmEventHandler::CLOSES_MASK | ACmEventHandler::ONE_EACH_MASK;
constexpr long REMOVE_AND_CALL_MASK = 0x7F;  // all kinds and SHOULD_CALL_MASK
constexpr unsigned long MAX_EVENTS_A_REPORT = 5;

}  // namespace

CCmReactorBase::CCmReactorBase(DWORD aProperty) : m_dwProperty(aProperty) { ++s_Live; }

CCmReactorBase::~CCmReactorBase() { --s_Live; }

CmResult CCmReactorBase::Open() {
    if (m_pTimerQueue)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (m_bClosed)
        return CM_ERROR_NOT_AVAILABLE;
    m_pTimerQueue.reset(new (std::nothrow) CCmTimerQueueOrderedList);
    if (!m_pTimerQueue)
        return CM_ERROR_OUT_OF_MEMORY;
    m_Est.Reset2CurrentThreadId();
    m_EventQueue.Reset2CurrentThreadId();
    return CM_OK;
}

BOOL CCmReactorBase::IsOwnThread_i(const char* aCall) const {
    if (m_Est.IsCurrentThread()) [[likely]]
        return TRUE;
    CM_ERROR_TRACE_THIS("CCmReactorBase::" << aCall << ", refused: another thread than the reactor's calls.");
    return FALSE;
}

CmResult CCmReactorBase::RegisterHandler(ACmEventHandler* aEh, long aMask) {
    if (!IsOwnThread_i("RegisterHandler"))
        return CM_ERROR_FAILURE;
    if (!aEh)
        return CM_ERROR_INVALID_ARG;
    const long lMask = aMask & ACmEventHandler::ALL_EVENTS_MASK;
    if (lMask == ACmEventHandler::NULL_MASK) {
        CM_WARNING_TRACE_THIS("CCmReactorBase::RegisterHandler, NULL_MASK. aMask=" << aMask);
        return CM_ERROR_INVALID_ARG;
    }
    const HANDLE fd = aEh->GetHandle();
    const CElement* pElement = m_Handlers.Find(fd);
    if (!pElement) {
        CmResult rv = OnHandleRegister(fd, lMask | (aMask & FLAG_MASK), aEh);
        if (rv != CM_OK)
            return rv;
        rv = m_Handlers.Bind(fd, aEh, lMask | (aMask & FLAG_MASK));
        if (rv != CM_OK)
            OnHandleRemoved(fd);
        return rv;
    }
    if (pElement->m_pEh == aEh && pElement->m_nMask == lMask)
        return CM_OK;
    const BOOL bOther = pElement->m_pEh != aEh;
    const BOOL bAdded = (lMask & ~pElement->m_nMask) != 0 || bOther;
    const CmResult rv = m_Handlers.Bind(fd, aEh, lMask | (aMask & FLAG_MASK));
    if (!bAdded && !(lMask & ACmEventHandler::DATAGRAM_MASK))
        return rv;
    if (OnHandleMaskAdded(fd) == CM_OK || !bOther)
        return rv;
    m_Handlers.UnBind(fd);
    OnHandleRemoved(fd);
    return CM_ERROR_UNEXPECTED;
}

CmResult CCmReactorBase::RemoveHandler(ACmEventHandler* aEh, long aMask) {
    if (!IsOwnThread_i("RemoveHandler"))
        return CM_ERROR_FAILURE;
    if (!aEh)
        return CM_ERROR_INVALID_ARG;
    const long lMask = aMask & ACmEventHandler::ALL_EVENTS_MASK;
    if (lMask == ACmEventHandler::NULL_MASK) {
        CM_WARNING_TRACE_THIS("CCmReactorBase::RemoveHandler, NULL_MASK. aMask=" << aMask);
        return CM_ERROR_INVALID_ARG;
    }
    const HANDLE fd = aEh->GetHandle();
    if (fd == CM_INVALID_HANDLE)
        return CM_ERROR_INVALID_ARG;
    CElement* pElement = m_Handlers.Find(fd);
    return pElement ? RemoveHandleWithoutFinding_i(fd, *pElement, lMask | (aMask & FLAG_MASK)) : CM_ERROR_NOT_FOUND;
}

CmResult CCmReactorBase::RemoveHandleWithoutFinding_i(HANDLE aFd, CElement& aElement, long aMask) {
    ACmEventHandler* pEh = aElement.m_pEh;
    const BOOL bCall = (aMask & ACmEventHandler::SHOULD_CALL_MASK) != 0;
    const BOOL bCloses = bCall ? aElement.m_bCloses : (aMask & ACmEventHandler::CLOSES_MASK) != 0;
    const long lOldMask = aElement.m_nMask;
    const long lNewMask = lOldMask & ~(aMask & ACmEventHandler::ALL_EVENTS_MASK);
    if (lNewMask == lOldMask) {
        CM_WARNING_TRACE_THIS("CCmReactorBase::RemoveHandleWithoutFinding_i, mask is equal. aMask=" << aMask);
        return CM_OK;
    }
    // A partial removal changes an existing entry, so the result is CM_ERROR_FOUND. The concrete reactor still watches the
    // handle; reports beyond the mask are dropped.
    if (lNewMask != ACmEventHandler::NULL_MASK) {
        aElement.m_nMask = static_cast<int>(lNewMask);
        return CM_ERROR_FOUND;
    }

    if (m_Handlers.UnBind(aFd) != CM_OK)
        CM_WARNING_TRACE_THIS("CCmReactorBase::RemoveHandleWithoutFinding_i, UnBind() failed! aFd=" << aFd);
    bCloses ? OnHandleClosing(aFd) : OnHandleRemoved(aFd);
    if (bCall)
        pEh->OnClose(aFd, lOldMask);
    return CM_OK;
}

CmResult CCmReactorBase::ProcessHandleEvent(HANDLE aFd, long aMask, CmResult aReason, BOOL aIsNotify, BOOL aDropConnect) {
    m_Est.EnsureSingleThread();
    if (aFd == CM_INVALID_HANDLE)
        return ProcessEventQueue_i();

    if (CElement* pElement = m_Handlers.Find(aFd))
        return ProcessBinding_i({aFd, *pElement}, aMask, aIsNotify, aDropConnect);
    if (!aDropConnect)
        CM_WARNING_TRACE_THIS("CCmReactorBase::ProcessHandleEvent, handle not registed. aFd=" << aFd << " aMask=" << aMask
                                                                                              << " aReason=" << aReason);
    return CM_ERROR_NOT_FOUND;
}

CmResult CCmReactorBase::ProcessBinding_i(const CBinding& aBinding, long aMask, BOOL aIsNotify, BOOL aDropConnect) {
    CElement& element = *aBinding.Get();
    ++m_Counters.m_ullReports;
    if (aMask & ACmEventHandler::CLOSE_MASK) {
        RemoveHandleWithoutFinding_i(aBinding.GetHandle(), element, REMOVE_AND_CALL_MASK);
        return CM_ERROR_FAILURE;
    }
    const long lReady = element.m_nMask & aMask;
    if (lReady == ACmEventHandler::NULL_MASK) {
        if (!aIsNotify)
            CM_WARNING_TRACE_THIS("CCmReactorBase::ProcessHandleEvent, mask not registed. aFd="
                                  << aBinding.GetHandle() << " m_Mask=" << element.m_nMask << " aMask=" << aMask);
        return CM_OK;
    }
    if (aDropConnect && (lReady & ACmEventHandler::CONNECT_MASK)) {
        CM_WARNING_TRACE_THIS("CCmReactorBase::ProcessHandleEvent, drop connect. aFd=" << aBinding.GetHandle());
        return CM_OK;
    }
    return Dispatch_i(aBinding, lReady);
}

// A callback may end the binding: remove, replace or delete the handler.
CmResult CCmReactorBase::Dispatch_i(const CBinding& aBinding, long aReady) {
    constexpr long IN_MASK = ACmEventHandler::ACCEPT_MASK | ACmEventHandler::READ_MASK;
    constexpr long OUT_MASK = ACmEventHandler::CONNECT_MASK | ACmEventHandler::WRITE_MASK;
    const HANDLE fd = aBinding.GetHandle();
    ACmEventHandler* pEh = aBinding.Get()->m_pEh;
    int nRv = 0;
    if (aReady & IN_MASK)
        nRv = pEh->OnInput(fd);
    if ((nRv == 0 || nRv == -2) && (aReady & OUT_MASK)) {
        if ((aReady & IN_MASK) && !aBinding.Get())
            return CM_ERROR_FAILURE;
        nRv = pEh->OnOutput(fd);
    }
    if (nRv == 0)
        return CM_OK;
    if (nRv == -2)
        return CM_ERROR_WOULD_BLOCK;
    if (CElement* pElement = aBinding.Get())
        RemoveHandleWithoutFinding_i(fd, *pElement, REMOVE_AND_CALL_MASK);
    return CM_ERROR_FAILURE;
}

// With more than a batch collected the wake-up stays under way, and while any are collected the posters' memory is not touched.
CmResult CCmReactorBase::ProcessEventQueue_i() {
    if (!m_EventQueue.HasMoreThan(MAX_EVENTS_A_REPORT))
        m_bWakeUpUnderWay = FALSE;
    CCmEventQueueBase::EventsType events;
    const CmResult rv = m_EventQueue.PopPendingEventsWithLock(events, MAX_EVENTS_A_REPORT, nullptr);
    if (rv != CM_OK)
        return rv;
    const BOOL bRemain = m_EventQueue.HasMoreThan(0) || m_EventQueue.GetPendingEventsCount() > 0;
    if (bRemain && !m_bWakeUpUnderWay)
        m_bWakeUpUnderWay = TRUE;
    m_Counters.m_ullEvents += events.size();
    m_EventQueue.ProcessEvents(events);
    if (bRemain)  // later posts have notified the loop themselves
        NotifyHandler(nullptr, ACmEventHandler::EVENTQUEUE_MASK);
    return rv;
}

CmResult CCmReactorBase::ProcessTimerTick() {
    if (!m_pTimerQueue)
        return CM_ERROR_NOT_INITIALIZED;
    m_Counters.m_ullTimers += static_cast<uint64_t>(m_pTimerQueue->CheckExpire(nullptr));
    return CM_OK;
}

CmResult CCmReactorBase::ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval, unsigned long aCount) {
    if (!IsOwnThread_i("ScheduleTimer"))
        return CM_ERROR_FAILURE;
    if (!m_pTimerQueue) {
        CM_ERROR_TRACE_THIS("CCmReactorBase::ScheduleTimer, m_pTimerQueue not inited or closed.");
        return CM_ERROR_NOT_INITIALIZED;
    }
    return m_pTimerQueue->ScheduleTimer(aEh, aArg, aInterval, aCount);
}

CmResult CCmReactorBase::CancelTimer(ICmTimerHandler* aEh) {
    if (!IsOwnThread_i("CancelTimer"))
        return CM_ERROR_FAILURE;
    if (!m_pTimerQueue) {
        CM_ERROR_TRACE_THIS("CCmReactorBase::CancelTimer, m_pTimerQueue not inited or closed.");
        return CM_ERROR_NOT_INITIALIZED;
    }
    return m_pTimerQueue->CancelTimer(aEh);
}

CmResult CCmReactorBase::PostEvent(ICmEvent* aEvent, EPriority aPri) {
    const CmResult rv = m_EventQueue.PostEvent(aEvent, aPri);
    if (rv == CM_OK && !m_bWakeUpUnderWay && !m_bWakeUpUnderWay.exchange(TRUE))
        NotifyHandler(nullptr, ACmEventHandler::EVENTQUEUE_MASK);
    return rv;
}

CmResult CCmReactorBase::Close() {
    // Events first: their end may still delete an object through a timer.
    m_bClosed = TRUE;
    m_EventQueue.Stop();
    m_EventQueue.DestoryPendingEvents();
    if (m_pTimerQueue)
        m_pTimerQueue->RunPendingDeletions();
    m_pTimerQueue.reset();
    m_Handlers.Clear();
    return CM_OK;
}

CmResult CCmReactorBase::OnHandleMaskAdded(HANDLE) { return CM_OK; }

CmResult CCmReactorBase::OnHandleClosing(HANDLE aFd) { return OnHandleRemoved(aFd); }
