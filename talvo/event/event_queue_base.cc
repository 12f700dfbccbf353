#include "talvo/event/event_queue_base.h"

#include <new>
#include <utility>

#include "talvo/base/ensure_single_thread.h"
#include "talvo/base/trace.h"
#include "talvo/event/event_batch.h"
#include "talvo/event/event_synchronous.h"

ICmEvent::~ICmEvent() = default;
void ICmEvent::OnDestorySelf() { delete this; }
ICmEventQueue::~ICmEventQueue() = default;

CCmTimeValue CCmEventQueueBase::s_tvReportInterval(0, 100000);

CCmEventQueueBase::CCmEventQueueBase() : m_tvCreated(CCmTimeValue::GetTimeOfDay()) {}

CCmEventQueueBase::~CCmEventQueueBase() { DestoryPendingEvents(); }

CmResult CCmEventQueueBase::PostEvent(ICmEvent* aEvent, EPriority) { return Refuse(aEvent, Append_l(aEvent)); }

CmResult CCmEventQueueBase::Append_l(ICmEvent* aEvent) {
    if (!aEvent)
        return CM_ERROR_INVALID_ARG;
    if (m_bStopped)
        return CM_ERROR_NOT_INITIALIZED;
    m_Events.push_back(aEvent);
    m_dwSize.store(m_dwSize.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return CM_OK;
}

CmResult CCmEventQueueBase::Refuse(ICmEvent* aEvent, CmResult aReason) {
    if (aReason == CM_ERROR_NOT_INITIALIZED) {
        CM_WARNING_TRACE_THIS("CCmEventQueueBase::PostEvent, has been stopped.");
        aEvent->OnDestorySelf();
    }
    return aReason;
}

CmResult CCmEventQueueBase::SendEvent(ICmEvent* aEvent) {
    if (!aEvent)
        return CM_ERROR_INVALID_ARG;
    if (m_bStopped) {
        CM_WARNING_TRACE_THIS("CCmEventQueueBase::SendEvent, has been stopped.");
        aEvent->OnDestorySelf();
        return CM_ERROR_NOT_INITIALIZED;
    }
    if (IsOwnerThread()) {
        const CmResult rv = aEvent->OnEventFire();
        aEvent->OnDestorySelf();
        return rv;
    }
    auto* pSynchronous = new (std::nothrow) CCmEventSynchronous(aEvent);
    if (!pSynchronous) {
        aEvent->OnDestorySelf();
        return CM_ERROR_INVALID_ARG;
    }
    const CmResult rv = PostEvent(pSynchronous, EPRIORITY_NORMAL);
    const CmResult rvEvent = pSynchronous->WaitResultAndDeleteThis();
    return rv == CM_OK ? rvEvent : rv;
}

void CCmEventQueueBase::Stop() { m_bStopped = TRUE; }

void CCmEventQueueBase::Reset2CurrentThreadId() { m_dwThreadId = cm_thread_self_id(); }

BOOL CCmEventQueueBase::IsOwnerThread() const { return m_dwThreadId == cm_thread_self_id(); }

CmResult CCmEventQueueBase::PopPendingEvents(EventsType& aEvents, unsigned long aMaxCount, unsigned long* aRemain) {
    const DWORD dwSize = m_dwSize;
    if (dwSize == 0)
        return CM_ERROR_NOT_FOUND;
    if (dwSize <= aMaxCount) {
        aEvents.swap(m_Events);
        m_dwSize = 0;
    } else if (aMaxCount > 0) {
        const auto itEnd = std::next(m_Events.begin(), static_cast<long>(aMaxCount));
        aEvents.splice(aEvents.end(), m_Events, m_Events.begin(), itEnd);
        m_dwSize = dwSize - static_cast<DWORD>(aMaxCount);
    }
    if (aRemain)
        *aRemain = m_dwSize;
    return CM_OK;
}

CmResult CCmEventQueueBase::PopOnePendingEvent(ICmEvent*& aEvent, unsigned long* aRemain) {
    if (m_dwSize == 0)
        return CM_ERROR_NOT_FOUND;
    aEvent = m_Events.front();
    m_Events.pop_front();
    --m_dwSize;
    if (aRemain)
        *aRemain = m_dwSize;
    return CM_OK;
}

CmResult CCmEventQueueBase::ProcessEvents(const EventsType& aEvents) {
    const talvo::CEventBatch batch;
    for (ICmEvent* pEvent : aEvents)
        ProcessOneEvent(pEvent);
    return CM_OK;
}

CmResult CCmEventQueueBase::ProcessOneEvent(ICmEvent* aEvent) {
    if (!aEvent)
        return CM_ERROR_INVALID_ARG;
    aEvent->OnEventFire();
    aEvent->OnDestorySelf();
    return CM_OK;
}

CCmEventQueueBase::EventsType CCmEventQueueBase::TakeAll() {
    m_dwSize = 0;
    return std::exchange(m_Events, {});
}

void CCmEventQueueBase::DestoryPendingEvents() {
    // An event that is destroyed may post another, so the list is looked at again.
    for (EventsType events = TakeAll(); !events.empty(); events = TakeAll()) {
        for (ICmEvent* pEvent : events)
            pEvent->OnDestorySelf();
    }
}
