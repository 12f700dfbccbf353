#include "talvo/base/mutex.h"

CCmMutexThreadBase::CCmMutexThreadBase() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_Lock, &attr);
    pthread_mutexattr_destroy(&attr);
}

CCmMutexThreadBase::~CCmMutexThreadBase() { pthread_mutex_destroy(&m_Lock); }

CmResult CCmMutexThreadBase::Lock() CM_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(&m_Lock);
    return CM_OK;
}

CmResult CCmMutexThreadBase::UnLock() CM_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&m_Lock);
    return CM_OK;
}

CmResult CCmMutexThreadBase::TryLock() CM_NO_THREAD_SAFETY_ANALYSIS {
    return pthread_mutex_trylock(&m_Lock) == 0 ? CM_OK : CM_ERROR_FAILURE;
}
