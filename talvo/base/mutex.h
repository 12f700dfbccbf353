// The mutexes and their scope guard. The library locks them only through the guard.
#pragma once

#include <pthread.h>

#include "talvo/base/ensure_single_thread.h"
#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/thread_annotations.h"

// Owns one system mutex. It is recursive: the holding thread may lock it again and must unlock it as often.
class CM_CAPABILITY("mutex") TALVO_API CCmMutexThreadBase {
public:
    CCmMutexThreadBase();
    ~CCmMutexThreadBase();
    CCmMutexThreadBase(const CCmMutexThreadBase&) = delete;
    CCmMutexThreadBase& operator=(const CCmMutexThreadBase&) = delete;

    CmResult Lock() CM_ACQUIRE();          // waits; CM_OK
    CmResult UnLock() CM_RELEASE();        // CM_OK
    CmResult TryLock() CM_TRY_ACQUIRE(0);  // CM_OK, or CM_ERROR_FAILURE if it is locked; never waits

    // The system's object, for the condition variable.
    pthread_mutex_t& GetMutexType() { return m_Lock; }

private:
    pthread_mutex_t m_Lock;
};

// Two names for one mutex: both are recursive.
class TALVO_API CCmMutexThread : public CCmMutexThreadBase {};
class TALVO_API CCmMutexThreadRecursive : public CCmMutexThreadBase {};

// The mutex of objects that belong to one thread. A lock only asserts the thread.
class CM_CAPABILITY("mutex") CCmMutexNullSingleThread {
public:
    // CM_OK; they never wait.
    CmResult Lock() CM_ACQUIRE() {
        m_Est.EnsureSingleThread();
        return CM_OK;
    }
    CmResult UnLock() CM_RELEASE() {
        m_Est.EnsureSingleThread();
        return CM_OK;
    }
    CmResult TryLock() CM_TRY_ACQUIRE(0) { return CM_OK; }

    // For calls that refuse other threads.
    CmBool IsCurrentThread() const { return m_Est.IsCurrentThread(); }

private:
    CCmEnsureSingleThread m_Est;
};

// Holds a mutex of any type above for a scope.
template <class MutexType>
class CM_SCOPED_CAPABILITY CCmMutexGuardT {
public:
    explicit CCmMutexGuardT(MutexType& aMutex) CM_ACQUIRE(aMutex) : m_Mutex(aMutex) { m_Mutex.Lock(); }  // locks it
    ~CCmMutexGuardT() CM_RELEASE() { m_Mutex.UnLock(); }
    CCmMutexGuardT(const CCmMutexGuardT&) = delete;
    CCmMutexGuardT& operator=(const CCmMutexGuardT&) = delete;

private:
    MutexType& m_Mutex;
};
