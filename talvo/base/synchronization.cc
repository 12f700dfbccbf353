#include "talvo/base/synchronization.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <optional>

namespace {

constexpr int64_t NSEC_PER_SEC = 1000000000;

// The time on the system's monotonic clock at which aTimeout ends; nullopt without a limit.
std::optional<timespec> Deadline(const CCmTimeValue* aTimeout) {
    if (!aTimeout)
        return std::nullopt;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t llUsec = std::max<int64_t>(aTimeout->GetTotalInUsec(), 0);
    const int64_t llNsec = now.tv_nsec + llUsec % 1000000 * 1000;
    now.tv_sec += llUsec / 1000000 + llNsec / NSEC_PER_SEC;
    now.tv_nsec = llNsec % NSEC_PER_SEC;
    return now;
}

CmResult WaitUntil(pthread_cond_t& aCondition, pthread_mutex_t& aMutex, const std::optional<timespec>& aDeadline) {
    const int nErr =
        aDeadline ? pthread_cond_timedwait(&aCondition, &aMutex, &*aDeadline) : pthread_cond_wait(&aCondition, &aMutex);
    if (nErr == 0)
        return CM_OK;
    return nErr == ETIMEDOUT ? CM_ERROR_TIMEOUT : CM_ERROR_FAILURE;
}

}  // namespace

CCmConditionVariableThread::CCmConditionVariableThread(CCmMutexThread& aMutex) : m_Mutex(aMutex) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_Condition, &attr);
    pthread_condattr_destroy(&attr);
}

CCmConditionVariableThread::~CCmConditionVariableThread() { pthread_cond_destroy(&m_Condition); }

CmResult CCmConditionVariableThread::Wait(CCmTimeValue* aTimeout) {
    return WaitUntil(m_Condition, m_Mutex.GetMutexType(), Deadline(aTimeout));
}

CmResult CCmConditionVariableThread::Signal() {
    pthread_cond_signal(&m_Condition);
    return CM_OK;
}

CmResult CCmConditionVariableThread::Broadcast() {
    pthread_cond_broadcast(&m_Condition);
    return CM_OK;
}

CCmEventThread::CCmEventThread(BOOL aManualReset, BOOL aSignalled)
    : m_Condition(m_Mutex), m_bManualReset(aManualReset), m_bSignalled(aSignalled) {}

CmResult CCmEventThread::Wait(CCmTimeValue* aTimeout) {
    const auto deadline = Deadline(aTimeout);
    CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    while (!m_bSignalled) {
        const CmResult rv = WaitUntil(m_Condition.GetConditionType(), m_Mutex.GetMutexType(), deadline);
        if (rv != CM_OK)
            return rv;
    }
    if (!m_bManualReset)
        m_bSignalled = FALSE;
    return CM_OK;
}

// Signals with the mutex held. A waiter may destroy the event as soon as its wait returns, and this call must be over then.
CmResult CCmEventThread::Signal() {
    CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    m_bSignalled = TRUE;
    return m_bManualReset ? m_Condition.Broadcast() : m_Condition.Signal();
}

CmResult CCmEventThread::Reset() {
    CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    m_bSignalled = FALSE;
    return CM_OK;
}

CCmSemaphoreThread::CCmSemaphoreThread(DWORD aInitialCount, DWORD aMaxCount)
    : m_Condition(m_Mutex), m_dwMaxCount(aMaxCount), m_dwCount(std::min(aInitialCount, aMaxCount)) {}

CmResult CCmSemaphoreThread::Lock(CCmTimeValue* aTimeout) {
    const auto deadline = Deadline(aTimeout);
    CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    while (m_dwCount == 0) {
        const CmResult rv = WaitUntil(m_Condition.GetConditionType(), m_Mutex.GetMutexType(), deadline);
        if (rv != CM_OK)
            return rv;
    }
    --m_dwCount;
    return CM_OK;
}

CmResult CCmSemaphoreThread::TryLock() {
    CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    if (m_dwCount == 0)
        return CM_ERROR_FAILURE;
    --m_dwCount;
    return CM_OK;
}

CmResult CCmSemaphoreThread::UnLock() { return PostN(1); }

CmResult CCmSemaphoreThread::PostN(DWORD aCount) {
    CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    if (aCount > m_dwMaxCount - m_dwCount)
        return CM_ERROR_FAILURE;
    m_dwCount += aCount;
    return aCount == 1 ? m_Condition.Signal() : m_Condition.Broadcast();
}
