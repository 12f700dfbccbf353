// The parts that the producers of the two examples of forward sessions have in common.
#pragma once

#include "talvo/talvo.h"

using Manager = CCmConnectionManager;

inline ICmReactor* MainReactor() { return CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN); }

// Listens, and adds what connects to a session. Upcalls do nothing unless overridden.
class Producer : public ICmAcceptorConnectorSink, public ICmTransportSink, public ICmForwardSink, public ICmTimerHandler {
protected:
    explicit Producer(const CCmForwardReceiverOptions& aOptions) : m_Options(aOptions) {}

    CCmInetAddr Listen(DWORD aType) {
        CCmInetAddr addr;
        Manager::Instance()->CreateForwardSession(this, m_pSession.ParaOut());
        Manager::Instance()->CreateConnectionServer(aType, m_pAcceptor.ParaOut());
        m_pAcceptor->StartListen(this, CCmInetAddr("127.0.0.1", 0));
        m_pAcceptor->GetListenAddr(addr);
        return addr;
    }
    void OnConnectIndication(CmResult, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        DWORD dwId = 0;
        int nBuffer = 4096;  // small, so that a receiver soon falls behind
        if (aTrpt && aTrpt->OpenWithSink(this) == CM_OK && aTrpt->SetOption(CM_OPT_TRANSPORT_SNDBUF, &nBuffer) == CM_OK)
            m_pSession->AddReceiver(aTrpt, m_Options, dwId);
    }
    void OnForward() override {}
    void OnReceiver(DWORD, CmResult) override {}
    void OnReceive(CCmMessageBlock&, ICmTransport*, CCmTransportParameter*) override {}
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}

    CCmRefPtrT<ICmForwardSession> m_pSession;

private:
    const CCmForwardReceiverOptions m_Options;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
};
