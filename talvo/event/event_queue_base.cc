#include "talvo/event/event_queue_base.h"

#include <new>
#include <utility>

#include "talvo/base/ensure_single_thread.h"
#include "talvo/base/trace.h"
#include "talvo/event/event_batch.h"
#include "talvo/event/event_memory.h"
#include "talvo/event/event_synchronous.h"

ICmEvent::~ICmEvent() = default;
void ICmEvent::OnDestorySelf() { delete this; }
void* ICmEvent::operator new(size_t aSize) {
    void* pMemory = talvo::take_event_memory(aSize);
    return pMemory ? pMemory : throw std::bad_alloc();
}
void* ICmEvent::operator new(size_t aSize, const std::nothrow_t&) noexcept { return talvo::take_event_memory(aSize); }
void ICmEvent::operator delete(void* aMemory) noexcept { talvo::give_event_memory(aMemory); }
void ICmEvent::operator delete(void* aMemory, const std::nothrow_t&) noexcept { talvo::give_event_memory(aMemory); }
ICmEventQueue::~ICmEventQueue() = default;

CCmTimeValue CCmEventQueueBase::s_tvReportInterval(0, 100000);

CCmEventQueueBase::CCmEventQueueBase() : m_tvCreated(CCmTimeValue::GetTimeOfDay()) {}

CCmEventQueueBase::~CCmEventQueueBase() { DestoryPendingEvents(); }

CmResult CCmEventQueueBase::PostEvent(ICmEvent* aEvent, EPriority) { return Refuse(aEvent, Append_l(aEvent)); }

CmResult CCmEventQueueBase::Append_l(ICmEvent* aEvent) {
    if (!aEvent)
        return CM_ERROR_INVALID_ARG;
    if (EventsType::IsListed(*aEvent))
        return CM_ERROR_ALREADY_INITIALIZED;
    if (m_bStopped)
        return CM_ERROR_NOT_INITIALIZED;
    m_Arrived.Append(aEvent);
    m_dwPosted.store(m_dwPosted.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
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
    if (EventsType::IsListed(*aEvent))
        return CM_ERROR_ALREADY_INITIALIZED;
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

// Read in this order the difference is never negative: an event is posted before it is taken.
DWORD CCmEventQueueBase::GetPendingEventsCount() {
    const DWORD dwTaken = m_dwTaken.load(std::memory_order_acquire);
    return m_dwPosted.load(std::memory_order_relaxed) - dwTaken;
}

void CCmEventQueueBase::CountTaken(size_t aCount) {
    m_dwTaken.store(m_dwTaken.load(std::memory_order_relaxed) + static_cast<DWORD>(aCount), std::memory_order_release);
}

void CCmEventQueueBase::TakeCollected(EventsType& aEvents, unsigned long aMaxCount) {
    const size_t nBefore = m_Collected.size();
    aEvents.TakeFrom(m_Collected, aMaxCount - aEvents.size());
    CountTaken(nBefore - m_Collected.size());
    m_Collected.Prefetch();
}

CmResult CCmEventQueueBase::PopPendingEvents(EventsType& aEvents, unsigned long aMaxCount, unsigned long* aRemain) {
    return PopPendingEvents(aEvents, aMaxCount, aRemain, [this] { Collect_l(); });
}

CmResult CCmEventQueueBase::PopOnePendingEvent(ICmEvent*& aEvent, unsigned long* aRemain) {
    EventsType events;
    const CmResult rv = PopPendingEvents(events, 1, aRemain);
    if (rv == CM_OK)
        aEvent = events.TakeFirst();
    return rv;
}

CmResult CCmEventQueueBase::ProcessEvents(EventsType& aEvents) {
    const talvo::CEventBatch batch;
    while (ICmEvent* pEvent = aEvents.TakeFirst()) {
        aEvents.Prefetch();
        ProcessOneEvent(pEvent);
    }
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
    if (m_Collected.empty())
        Collect_l();
    CountTaken(m_Collected.size());
    return std::move(m_Collected);
}

void CCmEventQueueBase::DestoryPendingEvents() {
    // The end of an event may post another one, so check the list again.
    for (EventsType events = TakeAll(); !events.empty(); events = TakeAll()) {
        while (ICmEvent* pEvent = events.TakeFirst())
            pEvent->OnDestorySelf();
    }
}
