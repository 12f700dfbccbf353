// Condition variable, event and semaphore. The parameter of every wait is its longest duration (null: no limit). It is measured
// on the system's monotonic clock and not on the replaceable one, because the thread really sleeps.
#pragma once

#include <pthread.h>

#include "talvo/base/export.h"
#include "talvo/base/mutex.h"
#include "talvo/base/time_value.h"

// A condition variable of one mutex, which must outlive it.
class TALVO_API CCmConditionVariableThread {
public:
    // aMutex is not owned.
    explicit CCmConditionVariableThread(CCmMutexThread& aMutex);
    ~CCmConditionVariableThread();
    CCmConditionVariableThread(const CCmConditionVariableThread&) = delete;
    CCmConditionVariableThread& operator=(const CCmConditionVariableThread&) = delete;

    // Releases the mutex while it waits; the caller must hold it exactly once. CM_OK: woken, perhaps spuriously: check the
    // condition again. CM_ERROR_TIMEOUT. CM_ERROR_FAILURE: the system refuses.
    CmResult Wait(CCmTimeValue* aTimeout = nullptr);
    CmResult Signal();     // wakes one waiter; CM_OK
    CmResult Broadcast();  // wakes all; CM_OK

    // The system's object.
    pthread_cond_t& GetConditionType() { return m_Condition; }

private:
    CCmMutexThread& m_Mutex;  // not owned
    pthread_cond_t m_Condition;
};

// A flag that threads wait for. Auto-reset: each Signal releases one wait and is then cleared. Manual reset: the flag stays set
// until Reset. Any thread.
class TALVO_API CCmEventThread {
public:
    // aManualReset: a signal stays until it is reset; otherwise it releases one waiter. aSignalled: the state at first.
    explicit CCmEventThread(CmBool aManualReset = CM_FALSE, CmBool aSignalled = CM_FALSE);

    CmResult Wait(CCmTimeValue* aTimeout = nullptr);  // CM_OK, CM_ERROR_TIMEOUT or CM_ERROR_FAILURE
    CmResult Signal();                                // releases one wait (auto-reset) or all (manual reset); CM_OK
    CmResult Reset();                                 // clears the flag; CM_OK

private:
    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Condition;
    const CmBool m_bManualReset;
    CmBool m_bSignalled CM_GUARDED_BY(m_Mutex);
};

// A counting semaphore. Any thread.
class TALVO_API CCmSemaphoreThread {
public:
    // aInitialCount: the count at first; aMaxCount: the most.
    explicit CCmSemaphoreThread(CmDword aInitialCount = 0, CmDword aMaxCount = 0x7fffffff);

    CmResult Lock(CCmTimeValue* aTimeout = nullptr);  // takes one; CM_OK, CM_ERROR_TIMEOUT or CM_ERROR_FAILURE
    CmResult TryLock();                               // CM_OK, or CM_ERROR_FAILURE when the count is 0
    CmResult UnLock();                                // adds one; CM_ERROR_FAILURE at the maximum
    CmResult PostN(CmDword aCount);  // adds all of aCount; or, if that exceeds the maximum, none, and CM_ERROR_FAILURE

private:
    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Condition;
    const CmDword m_dwMaxCount;
    CmDword m_dwCount CM_GUARDED_BY(m_Mutex);
};
