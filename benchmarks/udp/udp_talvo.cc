// Datagram echo server on this library, in the main thread, which is also the network thread. Ends with the process.
#include <cstdio>
#include <vector>

#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_process.h"

namespace {

class CEchoServer : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    CmResult Open(uint16_t aPort) {
        const CmResult rv =
            CCmConnectionManager::Instance()->CreateConnectionServer(CCmConnectionManager::CTYPE_UDP, m_pAcceptor.ParaOut());
        return rv == CM_OK ? m_pAcceptor->StartListen(this, CCmInetAddr("127.0.0.1", aPort)) : rv;
    }

    void OnConnectIndication(CmResult, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        if (aTrpt->OpenWithSink(this) == CM_OK)
            m_Peers.emplace_back(aTrpt);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override { aTrptId->SendData(aData); }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}

private:
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::vector<CCmRefPtrT<ICmTransport>> m_Peers;
};

}  // namespace

int main(int argc, char** argv) {
    CCmThreadManager::Instance()->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_MAIN);
    bench::CTalvoProcess process(argc, argv);
    CEchoServer server;
    const CmResult rv = CCmConnectionManager::Instance() ? server.Open(bench::PortArgument(argc, argv)) : CM_ERROR_FAILURE;
    if (rv != CM_OK) {
        std::fprintf(stderr, "cannot listen: %s\n", cm_result_name(rv));
        return 1;
    }
    bench::PrintReady();
    CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_MAIN)->OnThreadRun();
    return 0;
}
