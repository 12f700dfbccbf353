#include "talvo/event/precise_timer_manager.h"

#include <new>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/event/precise_timers.h"
#include "talvo/event/thread.h"

using talvo::CPreciseTimers;

namespace {

using SingletonGuard = CCmMutexGuardT<CCmMutexThreadRecursive>;

CCmLiveCounter s_Live("CCmPreciseTimerQueue");

constexpr DWORD SLOT_INTERVAL = 10;      // milliseconds
constexpr DWORD MAX_INTERVAL = 7200000;  // likewise

std::atomic<CCmPreciseTimerManager*> s_pInstance{nullptr};

}  // namespace

CCmPreciseTimerQueue* CCmPreciseTimerQueue::Create_i(CPreciseTimers& aTimers, ICmEventQueue& aQueue) {
    auto* pQueue = new (std::nothrow) CCmPreciseTimerQueue(aTimers, aQueue);
    if (pQueue && !pQueue->HasWheel_i())
        delete std::exchange(pQueue, nullptr);
    if (!pQueue)
        CM_ERROR_TRACE("CCmPreciseTimerQueue::Create_i, memory ran out.");
    return pQueue;
}

CCmPreciseTimerQueue::CCmPreciseTimerQueue(CPreciseTimers& aTimers, ICmEventQueue& aQueue)
    : CCmTimerQueueCalendar(SLOT_INTERVAL, MAX_INTERVAL, &aQueue), m_pTimers(&aTimers) {
    ++s_Live;
}

CCmPreciseTimerQueue::~CCmPreciseTimerQueue() { --s_Live; }

DWORD CCmPreciseTimerQueue::AddReference() { return m_pTimers->AddReferenceTo(*this); }

DWORD CCmPreciseTimerQueue::ReleaseReference() {
    const CCmRefPtrT<CPreciseTimers> pTimers = m_pTimers;  // outlives the calendar
    return pTimers->ReleaseReferenceTo(*this);
}

CmResult CCmPreciseTimerQueue::ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval,
                                             unsigned long aCount) {
    if (m_bEnded || m_pTimers->HasEnded())
        return CM_ERROR_NOT_INITIALIZED;
    if (const CmResult rv = m_bBound ? CM_OK : Bind_i(); rv != CM_OK)
        return rv;
    const CmResult rv = CCmTimerQueueCalendar::ScheduleTimer(aEh, aArg, aInterval, aCount);
    if ((rv == CM_OK || rv == CM_ERROR_FOUND) && !m_bArmed.exchange(true))
        m_pTimers->Arm();
    return rv;
}

CmResult CCmPreciseTimerQueue::CancelTimer(ICmTimerHandler* aEh) {
    return m_bBound || !aEh ? CCmTimerQueueCalendar::CancelTimer(aEh) : CM_ERROR_NOT_FOUND;
}

// The calendar may have been made by another thread.
CmResult CCmPreciseTimerQueue::Bind_i() {
    ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    if (!pThread || pThread->GetEventQueue() != m_pEventQueue)
        return CM_ERROR_FAILURE;
    if (pThread->GetLink().Join(*this) != CM_OK)
        return CM_ERROR_NOT_INITIALIZED;
    m_Mutex = CCmMutexNullSingleThread();
    m_bBound = true;
    return CM_OK;
}

void CCmPreciseTimerQueue::End_i() {
    LeaveThread();
    RunPendingDeletions();
}

// Another thread may delete the calendar as soon as it has ended.
void CCmPreciseTimerQueue::OnThreadEnd() {
    RunPendingDeletions();
    m_pTimers->OnThreadEnd(*this);
}

void CCmPreciseTimerQueue::OnTicked_i() {
    if (IsEmpty_i())
        m_bArmed = false;
}

CCmPreciseTimerManager::CCmPreciseTimerManager() : m_pTimers(new (std::nothrow) CPreciseTimers) {}

CCmPreciseTimerManager::~CCmPreciseTimerManager() {
    s_pInstance = nullptr;
    if (m_pTimers)
        m_pTimers->End();
}

CCmPreciseTimerManager* CCmPreciseTimerManager::Instance() {
    if (CCmPreciseTimerManager* pInstance = s_pInstance.load(std::memory_order_acquire))
        return pInstance;
    SingletonGuard guard(GetSingletonMutex());
    if (s_pInstance)
        return s_pInstance;
    auto* pInstance = new (std::nothrow) CCmPreciseTimerManager;
    if (pInstance && !pInstance->m_pTimers)
        delete std::exchange(pInstance, nullptr);
    return s_pInstance = pInstance;
}

CCmPreciseTimerQueue* CCmPreciseTimerManager::GetTimerQueue(ICmEventQueue* aQueue) {
    ICmEventQueue* pEvents = aQueue ? aQueue : CCmThreadManager::Instance()->GetThreadEventQueue(CCmThreadManager::TT_CURRENT);
    if (pEvents)
        return m_pTimers->GetTimerQueue(*pEvents);
    CM_ERROR_TRACE_THIS("CCmPreciseTimerManager::GetTimerQueue, the calling thread has no event queue.");
    return nullptr;
}
