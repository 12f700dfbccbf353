#include <unordered_map>

#include "tools/application.h"
#include "tools/commands.h"
#include "tools/listening.h"

namespace tool {

namespace {

// Sends every datagram back to where it came from. One that the socket has no room for is lost, as on the way; peers that have
// been silent for long are forgotten by the library.
class UdpEchoServer : public ICmAcceptorConnectorSink, private ICmTransportSink {
public:
    ~UdpEchoServer() override {
        if (m_pAcceptor)
            m_pAcceptor->StopListen(CM_OK);
        for (const auto& [pTransport, pHeld] : m_Peers)
            pTransport->Disconnect(CM_OK);
    }
    bool Start(const Endpoint& aEndpoint, Console& aConsole) {
        return StartListening(aEndpoint, this, aConsole, m_pAcceptor, CCmConnectionManager::CTYPE_UDP);
    }

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        if (aReason == CM_OK && aTrpt->OpenWithSink(this) == CM_OK)
            m_Peers.emplace(aTrpt, aTrpt);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override { aTrptId->SendData(aData); }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport* aTrptId) override { m_Peers.erase(aTrptId); }

    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::unordered_map<ICmTransport*, CCmRefPtrT<ICmTransport>> m_Peers;
};

}  // namespace

int RunEchoUdp(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    UdpEchoServer server;
    if (!server.Start(aArguments.m_Endpoint, console))
        return EXIT_FAILED;
    return application.Run();
}

}  // namespace tool
