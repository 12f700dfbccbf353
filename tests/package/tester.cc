// Uses the installed library for tests: a datagram crosses a simulated link.
#include <talvo/talvo.h>
#include <talvo/testing/testing.h>

#include <cstdio>

namespace {

class Peer : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    void OnConnectIndication(CmResult, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        m_pTransport = aTrpt;
        aTrpt->OpenWithSink(this);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        m_strReceived = aData.FlattenChained();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}

    CCmRefPtrT<ICmTransport> m_pTransport;
    CCmString m_strReceived;
};

}  // namespace

int main() {
    CCmSimNetwork network(1);
    const CCmInetAddr addr("10.0.0.1", 7070);
    Peer server, client;
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    CCmRefPtrT<ICmConnector> pConnector;
    CCmConnectionManager::Instance()->CreateConnectionServer(CCmConnectionManager::CTYPE_UDP, pAcceptor.ParaOut());
    CCmConnectionManager::Instance()->CreateConnectionClient(CCmConnectionManager::CTYPE_UDP, pConnector.ParaOut());
    pAcceptor->StartListen(&server, addr);
    pConnector->AsycConnect(&client, addr);
    network.RunFor(CCmTimeValue(1));
    CCmMessageBlock block(5, "hello", CCmMessageBlock::DONT_DELETE, 5);
    if (!client.m_pTransport || client.m_pTransport->SendData(block) != CM_OK)
        return 1;
    const BOOL bArrived = network.RunUntil([&server] { return !server.m_strReceived.empty(); }, CCmTimeValue(1));
    std::printf("%s after %d us\n", server.m_strReceived.c_str(), static_cast<int>(network.Now().GetTotalInUsec()));
    return bArrived && server.m_strReceived == "hello" ? 0 : 1;
}
