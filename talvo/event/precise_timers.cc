#include "talvo/event/precise_timers.h"

#include <algorithm>
#include <new>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/precise_timer_thread.h"

namespace talvo {

namespace {

using Guard = CCmMutexGuardT<CCmMutexThread>;

// FALSE: no memory for one more.
BOOL MakeRoom(std::vector<CCmPreciseTimerQueue*>& aQueues) {
    return WithMemory([&] { aQueues.reserve(aQueues.size() + 1); });
}

}  // namespace

CPreciseTimers::CPreciseTimers() = default;
CPreciseTimers::~CPreciseTimers() = default;

CCmPreciseTimerQueue* CPreciseTimers::GetTimerQueue(ICmEventQueue& aQueue) {
    std::unique_ptr<CPreciseTimerThread> pEnded;
    Guard guard(m_Mutex);
    if (CCmPreciseTimerQueue* pFound = Find_i(aQueue)) {
        ++pFound->m_dwReferences;
        return pFound;
    }
    if (!StartThread_i())
        return nullptr;
    CCmPreciseTimerQueue* pQueue = MakeRoom(m_Queues) ? CCmPreciseTimerQueue::Create_i(*this, aQueue) : nullptr;
    if (pQueue)
        m_Queues.push_back(pQueue);
    else if (m_Queues.empty())
        pEnded = TakeThread_i();
    return pQueue;
}

DWORD CPreciseTimers::AddReferenceTo(CCmPreciseTimerQueue& aQueue) {
    Guard guard(m_Mutex);
    return ++aQueue.m_dwReferences;
}

// A calendar that a thread uses is deleted by an event of that thread, which cannot end while the mutex is locked.
DWORD CPreciseTimers::ReleaseReferenceTo(CCmPreciseTimerQueue& aQueue) {
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

BOOL CPreciseTimers::StartThread_i() {
    if (m_pThread)
        return TRUE;
    std::unique_ptr<CPreciseTimerThread> pThread;
    WithMemory([&] { pThread.reset(new CPreciseTimerThread([this](uint64_t aBeats) { OnBeat_i(aBeats); })); });
    if (!pThread || !pThread->Start()) {
        CM_ERROR_TRACE_THIS("CCmPreciseTimerManager::StartThread_i, there is no thread for the beat.");
        return FALSE;
    }
    m_pThread = std::move(pThread);
    return TRUE;
}

CCmPreciseTimerQueue* CPreciseTimers::Find_i(const ICmEventQueue& aQueue) {
    const auto it = std::find_if(m_Queues.begin(), m_Queues.end(),
                                 [&](const CCmPreciseTimerQueue* aFound) { return aFound->m_pEventQueue == &aQueue; });
    return it == m_Queues.end() ? nullptr : *it;
}

void CPreciseTimers::Arm() {
    Guard guard(m_Mutex);
    if (m_pThread && !std::exchange(m_bBeating, true))
        m_pThread->Beat(TRUE);
}

void CPreciseTimers::OnBeat_i(uint64_t aTicks) {
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
std::unique_ptr<CPreciseTimerThread> CPreciseTimers::Remove_i(CCmPreciseTimerQueue& aQueue) {
    m_Queues.erase(std::remove(m_Queues.begin(), m_Queues.end(), &aQueue), m_Queues.end());
    return m_Queues.empty() ? TakeThread_i() : nullptr;
}

std::unique_ptr<CPreciseTimerThread> CPreciseTimers::TakeThread_i() {
    m_bBeating = false;
    return std::move(m_pThread);
}

void CPreciseTimers::OnThreadEnd(CCmPreciseTimerQueue& aQueue) {
    const CCmRefPtrT<CPreciseTimers> pThis(this);  // outlives the calendar
    std::unique_ptr<CPreciseTimerThread> pEnded;
    Guard guard(m_Mutex);
    pEnded = Remove_i(aQueue);
    aQueue.m_bEnded = true;
}

void CPreciseTimers::End() {
    std::unique_ptr<CPreciseTimerThread> pEnded;
    Guard guard(m_Mutex);
    m_bEnded = true;
    pEnded = TakeThread_i();
}

}  // namespace talvo
