#include "talvo/event/thread_reactor.h"

#include "talvo/base/trace.h"

CCmThreadReactor::~CCmThreadReactor() {
    CloseLink();
    if (m_pReactor)
        m_pReactor->Close();
}

CmResult CCmThreadReactor::AttachReactor(ICmReactor* aReactor) {
    if (!aReactor)
        return CM_ERROR_INVALID_ARG;
    if (m_pReactor)
        return CM_ERROR_ALREADY_INITIALIZED;
    m_pReactor.reset(aReactor);
    return CM_OK;
}

CmResult CCmThreadReactor::Create(int aType, TFlag aFlag) {
    CmResult rv = ACmThread::Create(aType, aFlag);
    if (rv != CM_OK || aType != CCmThreadManager::TT_MAIN)
        return rv;
    rv = m_pReactor ? m_pReactor->Open() : CM_ERROR_NOT_INITIALIZED;
    // The text names OnThreadRun although this is Create. It stays, because operators search their logs for it.
    if (rv != CM_OK)
        CM_ERROR_TRACE_THIS("CCmThreadReactor::OnThreadRun, m_pReactor->Open() failed! rv=" << rv);
    return rv;
}

// The stop is posted behind earlier events: connections that their users have closed are closed when the loop returns.
CmResult CCmThreadReactor::Stop(CCmTimeValue*) {
    if (!m_pReactor)
        return CM_ERROR_NOT_INITIALIZED;
    const CmResult rv = GetLink().Post([pReactor = m_pReactor.get()] { pReactor->StopEventLoop(); });
    return rv == CM_OK ? CM_OK : m_pReactor->StopEventLoop();
}

void CCmThreadReactor::OnThreadInit() {
    const CmResult rv = m_pReactor ? m_pReactor->Open() : CM_ERROR_NOT_INITIALIZED;
    if (rv != CM_OK)
        CM_ERROR_TRACE_THIS("CCmThreadReactor::OnThreadInit, m_pReactor->Open() failed! rv=" << rv);
}

void CCmThreadReactor::OnThreadRun() {
    CM_INFO_TRACE_THIS("CCmThreadReactor::OnThreadRun, Begin.");
    if (m_pReactor && m_pReactor->RunEventLoop() != CM_ERROR_ALREADY_INITIALIZED) {
        Linger();
        CloseLink();
        m_pReactor->Close();
    }
    CM_INFO_TRACE_THIS("CCmThreadReactor::OnThreadRun, End.");
}
