#include "talvo/event/precise_timer_manager.h"

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/precise_timer_thread.h"
#include "talvo/event/thread.h"

using talvo::CPreciseTimerThread;

namespace {

using Guard = CCmMutexGuardT<CCmMutexThread>;
using SingletonGuard = CCmMutexGuardT<CCmMutexThreadRecursive>;

CCmLiveCounter s_Live("CCmPreciseTimerQueue");

constexpr DWORD SLOT_INTERVAL = 10;      // milliseconds
constexpr DWORD MAX_INTERVAL = 7200000;  // likewise

std::atomic<CCmPreciseTimerManager*> s_pInstance{nullptr};

// FALSE: no memory for one more.
BOOL MakeRoom(std::vector<CCmPreciseTimerQueue*>& aQueues) {
    return talvo::WithMemory([&] { aQueues.reserve(aQueues.size() + 1); });
}

}  // namespace

CCmPreciseTimerQueue::CCmPreciseTimerQueue(CCmPreciseTimerManager& aManager, ICmEventQueue* aQueue)
    : CCmTimerQueueCalendar(SLOT_INTERVAL, MAX_INTERVAL, aQueue), m_Manager(aManager) {
    ++s_Live;
}

CCmPreciseTimerQueue::~CCmPreciseTimerQueue() { --s_Live; }

DWORD CCmPreciseTimerQueue::AddReference() {
    Guard guard(m_Manager.m_Mutex);
    return ++m_dwReferences;
}

DWORD CCmPreciseTimerQueue::ReleaseReference() { return m_Manager.Release_i(*this); }

CmResult CCmPreciseTimerQueue::ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval,
                                             unsigned long aCount) {
    if (const CmResult rv = m_bBound ? CM_OK : Bind_i(); rv != CM_OK)
        return rv;
    if (m_bEnded)
        return CM_ERROR_NOT_INITIALIZED;
    const CmResult rv = CCmTimerQueueCalendar::ScheduleTimer(aEh, aArg, aInterval, aCount);
    if ((rv == CM_OK || rv == CM_ERROR_FOUND) && !m_bArmed.exchange(true))
        m_Manager.Arm_i();
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
    m_Manager.ThreadHasEnded_i(*this);
}

void CCmPreciseTimerQueue::OnTicked_i() {
    if (IsEmpty_i())
        m_bArmed = false;
}

CCmPreciseTimerManager::CCmPreciseTimerManager() = default;

CCmPreciseTimerManager::~CCmPreciseTimerManager() { s_pInstance = nullptr; }

CCmPreciseTimerManager* CCmPreciseTimerManager::Instance() {
    if (CCmPreciseTimerManager* pInstance = s_pInstance.load(std::memory_order_acquire))
        return pInstance;
    SingletonGuard guard(GetSingletonMutex());
    if (!s_pInstance)
        s_pInstance = new (std::nothrow) CCmPreciseTimerManager;
    return s_pInstance;
}

CCmPreciseTimerQueue* CCmPreciseTimerManager::GetTimerQueue(ICmEventQueue* aQueue) {
    ICmEventQueue* pEvents = aQueue ? aQueue : CCmThreadManager::Instance()->GetThreadEventQueue(CCmThreadManager::TT_CURRENT);
    if (!pEvents) {
        CM_ERROR_TRACE_THIS("CCmPreciseTimerManager::GetTimerQueue, the calling thread has no event queue.");
        return nullptr;
    }
    Guard guard(m_Mutex);
    if (CCmPreciseTimerQueue* pFound = Find_i(pEvents)) {
        ++pFound->m_dwReferences;
        return pFound;
    }
    if (!StartThread_i() || !MakeRoom(m_Queues))
        return nullptr;
    auto* pQueue = new (std::nothrow) CCmPreciseTimerQueue(*this, pEvents);
    if (pQueue)
        m_Queues.push_back(pQueue);
    return pQueue;
}

BOOL CCmPreciseTimerManager::StartThread_i() {
    if (m_pThread)
        return TRUE;
    std::unique_ptr<CPreciseTimerThread> pThread;
    talvo::WithMemory([&] { pThread.reset(new CPreciseTimerThread([this](uint64_t aBeats) { OnBeat_i(aBeats); })); });
    if (!pThread || !pThread->Start()) {
        CM_ERROR_TRACE_THIS("CCmPreciseTimerManager::StartThread_i, there is no thread for the beat.");
        return FALSE;
    }
    m_pThread = std::move(pThread);
    return TRUE;
}

CCmPreciseTimerQueue* CCmPreciseTimerManager::Find_i(const ICmEventQueue* aQueue) {
    const auto it = std::find_if(m_Queues.begin(), m_Queues.end(),
                                 [=](const CCmPreciseTimerQueue* aFound) { return aFound->m_pEventQueue == aQueue; });
    return it == m_Queues.end() ? nullptr : *it;
}

void CCmPreciseTimerManager::Arm_i() {
    Guard guard(m_Mutex);
    if (m_pThread && !std::exchange(m_bBeating, true))
        m_pThread->Beat(TRUE);
}

void CCmPreciseTimerManager::OnBeat_i(uint64_t aTicks) {
    Guard guard(m_Mutex);
    if (!m_pThread)
        return;
    BOOL bAny = FALSE;
    for (CCmPreciseTimerQueue* pQueue : m_Queues) {
        for (uint64_t ullTick = 0; ullTick < aTicks && pQueue->m_bArmed; ++ullTick)
            pQueue->PostTick();
        bAny = bAny || pQueue->m_bArmed;
    }
    m_bBeating = bAny;
    if (!bAny)
        m_pThread->Beat(FALSE);
}

// The thread without a calendar, for the caller to end outside of the mutex, which it takes; otherwise null.
std::unique_ptr<CPreciseTimerThread> CCmPreciseTimerManager::Remove_i(CCmPreciseTimerQueue& aQueue) {
    m_Queues.erase(std::remove(m_Queues.begin(), m_Queues.end(), &aQueue), m_Queues.end());
    if (!m_Queues.empty())
        return nullptr;
    m_bBeating = false;
    return std::move(m_pThread);
}

void CCmPreciseTimerManager::ThreadHasEnded_i(CCmPreciseTimerQueue& aQueue) {
    std::unique_ptr<CPreciseTimerThread> pEnded;
    Guard guard(m_Mutex);
    pEnded = Remove_i(aQueue);
    aQueue.m_bEnded = true;
}

// A calendar that a thread uses is deleted by an event of that thread, which cannot end while the mutex is locked.
DWORD CCmPreciseTimerManager::Release_i(CCmPreciseTimerQueue& aQueue) {
    std::unique_ptr<CPreciseTimerThread> pEnded;
    BOOL bInside = FALSE;
    {
        Guard guard(m_Mutex);
        if (--aQueue.m_dwReferences > 0)
            return aQueue.m_dwReferences;
        pEnded = Remove_i(aQueue);
        bInside = aQueue.m_bBound && !aQueue.m_bEnded && aQueue.m_Mutex.IsCurrentThread();
        if (!aQueue.m_bBound || aQueue.m_bEnded)
            delete &aQueue;
        else if (!bInside)
            aQueue.m_pEventQueue->PostEvent(&aQueue.m_Deletion);
    }
    if (bInside) {
        aQueue.End_i();
        aQueue.m_pEventQueue->PostEvent(&aQueue.m_Deletion);
    }
    return 0;
}
