// An endpoint that one thread changes and others read.
#pragma once

#include "talvo/base/inet_addr.h"
#include "talvo/base/mutex.h"

namespace talvo {

// An address of any family, or none. Unlike a CAtomicAddr it can change often. Any thread.
class CGuardedAddr {
public:
    void Store(const CCmInetAddr& aAddr) {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        m_Addr = aAddr;
        m_bStored = CM_TRUE;
    }

    // FALSE, with 0.0.0.0:0 in aAddr (out): no address was stored.
    CmBool Load(CCmInetAddr& aAddr) const {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        aAddr = m_Addr;
        return m_bStored;
    }

private:
    mutable CCmMutexThread m_Mutex;
    CCmInetAddr m_Addr CM_GUARDED_BY(m_Mutex);
    CmBool m_bStored CM_GUARDED_BY(m_Mutex) = CM_FALSE;
};

}  // namespace talvo
