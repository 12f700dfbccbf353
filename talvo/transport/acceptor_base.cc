#include "talvo/transport/acceptor_base.h"

#include "talvo/event/thread.h"

CCmAcceptorBase::CCmAcceptorBase()
    : m_pThreadNetwork(CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_NETWORK)),
      m_pReactor(m_pThreadNetwork ? m_pThreadNetwork->GetReactor() : nullptr) {}

CmResult CCmAcceptorBase::CheckListen_i() {
    if (!m_pReactor.IsAlive())
        return CM_ERROR_NOT_INITIALIZED;
    return m_pThreadNetwork->GetLink().GetDrainStage() == ECmDrainStage::NONE ? CM_OK : CM_ERROR_NOT_AVAILABLE;
}

void CCmAcceptorBase::Listening_i() { m_pThreadNetwork->GetLink().Join(*this); }

void CCmAcceptorBase::OnDrain(ECmDrainStage aStage) {
    if (aStage != ECmDrainStage::NONE)
        StopListen(CM_OK);
}
