// A third party in a simulated network.
#pragma once

#include <string>

#include "talvo/base/ref_ptr.h"
#include "talvo/testing/sim_network.h"
#include "talvo/transport/transport_interface.h"

// Connects once to an acceptor, sends bytes that are no business of its own (a replay of another connection, a guess) and keeps
// the answer. Closes when it is destroyed. ICmSimObserver::OnSend has the bytes of the others.
class CCmSimIntruder final : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    // Connects at once from aLocal, and then sends aBytes.
    CCmSimIntruder(const CCmInetAddr& aLocal, const CCmInetAddr& aServer, std::string aBytes);
    ~CCmSimIntruder() override;
    CCmSimIntruder(const CCmSimIntruder&) = delete;
    CCmSimIntruder& operator=(const CCmSimIntruder&) = delete;

    const std::string& GetAnswer() const { return m_strAnswer; }  // all bytes that have come back
    // It was not connected, or the other end has closed.
    CmBool IsOver() const { return m_bOver; }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

private:
    std::string m_strBytes;  // to send
    std::string m_strAnswer;
    CmBool m_bOver = CM_FALSE;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
};
