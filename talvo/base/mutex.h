// The mutexes and their scope guard, which is the only way the library takes them.
#pragma once

#include <pthread.h>

#include "talvo/base/ensure_single_thread.h"
#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/thread_annotations.h"

// Owns one system mutex. Recursive: the thread that holds it may take it again and gives it back as often.
class CM_CAPABILITY("mutex") TALVO_API CCmMutexThreadBase {
public:
    CCmMutexThreadBase();
    ~CCmMutexThreadBase();
    CCmMutexThreadBase(const CCmMutexThreadBase&) = delete;
    CCmMutexThreadBase& operator=(const CCmMutexThreadBase&) = delete;

    CmResult Lock() CM_ACQUIRE();          // waits; CM_OK
    CmResult UnLock() CM_RELEASE();        // CM_OK
    CmResult TryLock() CM_TRY_ACQUIRE(0);  // CM_OK if taken, else CM_ERROR_FAILURE; never waits

    // The system's object, for the condition variable.
    pthread_mutex_t& GetMutexType() { return m_Lock; }

private:
    pthread_mutex_t m_Lock;
};

// Two names for the same thing: both are recursive.
class TALVO_API CCmMutexThread : public CCmMutexThreadBase {};
class TALVO_API CCmMutexThreadRecursive : public CCmMutexThreadBase {};

// The mutex of objects that belong to one thread: taking it only asserts that.
class CM_CAPABILITY("mutex") CCmMutexNullSingleThread {
public:
    CmResult Lock() CM_ACQUIRE() {
        m_Est.EnsureSingleThread();
        return CM_OK;
    }
    CmResult UnLock() CM_RELEASE() {
        m_Est.EnsureSingleThread();
        return CM_OK;
    }
    CmResult TryLock() CM_TRY_ACQUIRE(0) { return CM_OK; }

    // For calls that refuse another thread.
    BOOL IsCurrentThread() const { return m_Est.IsCurrentThread(); }

private:
    CCmEnsureSingleThread m_Est;
};

// Holds a mutex of any of the types above for the length of a scope.
template <class MutexType>
class CM_SCOPED_CAPABILITY CCmMutexGuardT {
public:
    explicit CCmMutexGuardT(MutexType& aMutex) CM_ACQUIRE(aMutex) : m_Mutex(aMutex) { m_Mutex.Lock(); }
    ~CCmMutexGuardT() CM_RELEASE() { m_Mutex.UnLock(); }
    CCmMutexGuardT(const CCmMutexGuardT&) = delete;
    CCmMutexGuardT& operator=(const CCmMutexGuardT&) = delete;

private:
    MutexType& m_Mutex;
};
