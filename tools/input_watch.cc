#include "tools/input_watch.h"

namespace tool {

namespace {

ICmReactor& MainReactor() { return *CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN); }

}  // namespace

bool InputWatch::Start() {
    m_bRegistered = m_bRegistered || MainReactor().RegisterHandler(this, READ_MASK) == CM_OK;
    return m_bRegistered;
}

int InputWatch::OnInput(HANDLE) {
    Stop();
    m_Ready();
    return 0;
}

int InputWatch::OnClose(HANDLE, long) {
    m_bRegistered = false;
    m_Ready();
    return 0;
}

void InputWatch::Stop() {
    if (m_bRegistered)
        MainReactor().RemoveHandler(this, ALL_EVENTS_MASK);
    m_bRegistered = false;
}

}  // namespace tool
