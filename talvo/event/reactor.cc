#include "talvo/event/reactor.h"

#include "talvo/base/immortal.h"
#include "talvo/base/mutex.h"

HANDLE ACmEventHandler::GetHandle() const { return CM_INVALID_HANDLE; }
int ACmEventHandler::OnInput(HANDLE) { return -1; }
int ACmEventHandler::OnOutput(HANDLE) { return -1; }
int ACmEventHandler::OnException(HANDLE) { return -1; }
ACmEventHandler::~ACmEventHandler() = default;

namespace {

// The list of all live reactors.
struct CLiveReactors {
    CCmMutexThread m_Mutex;
    ICmReactor* m_pFirst CM_GUARDED_BY(m_Mutex) = nullptr;
};

CLiveReactors& LiveReactors() {
    static talvo::CImmortalT<CLiveReactors> s_Live;  // threads may outlive the end of main
    return *s_Live;
}

using Guard = CCmMutexGuardT<CCmMutexThread>;

}  // namespace

ICmReactor::ICmReactor() {
    CLiveReactors& live = LiveReactors();
    Guard guard(live.m_Mutex);
    m_pNextAlive = live.m_pFirst;
    m_ppBackAlive = &live.m_pFirst;
    if (m_pNextAlive)
        m_pNextAlive->m_ppBackAlive = &m_pNextAlive;
    live.m_pFirst = this;
}

ICmReactor::~ICmReactor() {
    CLiveReactors& live = LiveReactors();
    Guard guard(live.m_Mutex);
    *m_ppBackAlive = m_pNextAlive;
    if (m_pNextAlive)
        m_pNextAlive->m_ppBackAlive = m_ppBackAlive;
}

DWORD ICmReactor::GetProperty() const { return 0; }
CmResult ICmReactor::PostEventQuietly(ICmEvent* aEvent) { return PostEvent(aEvent); }

BOOL ICmReactor::IsAlive(const ICmReactor* aReactor) {
    CLiveReactors& live = LiveReactors();
    Guard guard(live.m_Mutex);
    const ICmReactor* pReactor = live.m_pFirst;
    while (pReactor && pReactor != aReactor)
        pReactor = pReactor->m_pNextAlive;
    return pReactor != nullptr;
}
