#include "talvo/event/event_synchronous.h"

#include <utility>

#include "talvo/base/trace.h"

CmResult CCmEventSynchronous::OnEventFire() {
    const CmResult rv = m_pEventWrapped ? m_pEventWrapped->OnEventFire() : CM_ERROR_NULL_POINTER;
    m_Result = rv;
    m_SendEvent.Signal();
    return rv;
}

void CCmEventSynchronous::OnDestorySelf() {
    if (ICmEvent* pEvent = std::exchange(m_pEventWrapped, nullptr))
        pEvent->OnDestorySelf();
    m_SendEvent.Signal();  // for a sender whose event never ran
    LetGo();
}

CmResult CCmEventSynchronous::WaitResultAndDeleteThis() {
    CmResult rv = m_SendEvent.Wait();
    if (rv == CM_OK)
        rv = m_Result;
    else
        CM_WARNING_TRACE_THIS("CCmEventSynchronous::WaitResultAndDeleteThis, m_SendEvent.Wait() failed!");
    LetGo();
    return rv;
}

void CCmEventSynchronous::LetGo() {
    if (--m_nHolders == 0)
        delete this;
}
