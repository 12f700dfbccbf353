#include "talvo/event/reactor.h"

#include <atomic>

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

constexpr uint64_t NEVER = 0;

// The number of the last begin or end of a reactor. Changes under the mutex.
std::atomic<uint64_t> s_ullChanges{NEVER + 1};

CLiveReactors& LiveReactors() {
    static talvo::CImmortalT<CLiveReactors> s_Live;  // threads may outlive the end of main
    return *s_Live;
}

// A live reactor that the calling thread has found last, and the number of the last change then.
[[gnu::tls_model("initial-exec")]] constinit thread_local struct {
    const ICmReactor* m_pReactor;
    uint64_t m_ullChanges;
} t_Found = {};

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
    m_ullBorn = ++s_ullChanges;
}

ICmReactor::~ICmReactor() {
    CLiveReactors& live = LiveReactors();
    Guard guard(live.m_Mutex);
    *m_ppBackAlive = m_pNextAlive;
    if (m_pNextAlive)
        m_pNextAlive->m_ppBackAlive = m_ppBackAlive;
    ++s_ullChanges;
}

DWORD ICmReactor::GetProperty() const { return 0; }
BOOL ICmReactor::IsOrderlyEnd() const { return FALSE; }
CmResult ICmReactor::PostEventQuietly(ICmEvent* aEvent) { return PostEvent(aEvent); }

BOOL ICmReactor::IsAlive(const ICmReactor* aReactor) {
    uint64_t ullSeen = UINT64_MAX;
    return IsAlive_i(aReactor, ullSeen);
}

BOOL ICmReactor::IsAlive_i(const ICmReactor* aReactor, uint64_t& aSeen) {
    if (aSeen == s_ullChanges.load(std::memory_order_acquire))
        return TRUE;
    if (t_Found.m_pReactor == aReactor && t_Found.m_ullChanges == s_ullChanges.load(std::memory_order_acquire)) {
        aSeen = aReactor->m_ullBorn <= aSeen ? t_Found.m_ullChanges : NEVER;
        return aSeen != NEVER;
    }
    CLiveReactors& live = LiveReactors();
    Guard guard(live.m_Mutex);
    const ICmReactor* pReactor = live.m_pFirst;
    while (pReactor && pReactor != aReactor)
        pReactor = pReactor->m_pNextAlive;
    if (pReactor)
        t_Found = {pReactor, s_ullChanges.load()};
    aSeen = pReactor && pReactor->m_ullBorn <= aSeen ? s_ullChanges.load() : NEVER;
    return aSeen != NEVER;
}
