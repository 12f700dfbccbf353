#include "talvo/event/reactor.h"

#include <algorithm>
#include <vector>

#include "talvo/base/mutex.h"

HANDLE ACmEventHandler::GetHandle() const { return CM_INVALID_HANDLE; }
int ACmEventHandler::OnInput(HANDLE) { return -1; }
int ACmEventHandler::OnOutput(HANDLE) { return -1; }
int ACmEventHandler::OnException(HANDLE) { return -1; }
ACmEventHandler::~ACmEventHandler() = default;

namespace {

// All reactors there are. Never destroyed: threads may outlive the end of main.
struct CLiveReactors {
    CCmMutexThread m_Mutex;
    std::vector<const ICmReactor*> m_Reactors CM_GUARDED_BY(m_Mutex);
};

CLiveReactors& LiveReactors() {
    static CLiveReactors& s_Live = *new CLiveReactors;
    return s_Live;
}

using Guard = CCmMutexGuardT<CCmMutexThread>;

}  // namespace

ICmReactor::ICmReactor() {
    CLiveReactors& live = LiveReactors();
    Guard guard(live.m_Mutex);
    live.m_Reactors.push_back(this);
}

ICmReactor::~ICmReactor() {
    CLiveReactors& live = LiveReactors();
    Guard guard(live.m_Mutex);
    std::erase(live.m_Reactors, this);
}

DWORD ICmReactor::GetProperty() const { return 0; }
CmResult ICmReactor::PostEventQuietly(ICmEvent* aEvent) { return PostEvent(aEvent); }

BOOL ICmReactor::IsAlive(const ICmReactor* aReactor) {
    CLiveReactors& live = LiveReactors();
    Guard guard(live.m_Mutex);
    return std::find(live.m_Reactors.begin(), live.m_Reactors.end(), aReactor) != live.m_Reactors.end();
}
