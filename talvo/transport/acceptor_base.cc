#include "talvo/transport/acceptor_base.h"

#include "talvo/event/thread.h"

CCmAcceptorBase::CCmAcceptorBase()
    : m_pThreadNetwork(CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_NETWORK)),
      m_pReactor(m_pThreadNetwork ? m_pThreadNetwork->GetReactor() : nullptr) {}
