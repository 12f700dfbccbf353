// Sends messages through a proxy server:   through_proxy PROXY_URI [HOST:PORT]
//
// Any connector takes a route, so a package connection needs no type of its own. PROXY_URI may be a list, such as
// socks5://a:1080,direct. Without an endpoint the program talks to a server of its own at loopback.
#include <cstdio>
#include <string>

#include "talvo/talvo.h"

constexpr DWORD TYPE = CCmConnectionManager::CTYPE_PDU_PACKAGE | CCmConnectionManager::CTYPE_TCP;

ICmReactor* MainReactor() { return CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN); }

// Both ends; the server's end sends each message back.
class End : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    explicit End(BOOL aServer) : m_bServer(aServer) {}

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override {
        CCmFailure failure;
        cm_get_connect_options(aId)->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
        if (aReason != CM_OK)
            return Stop(std::string(cm_result_name(aReason)) + ": cannot " + failure.ToString());
        m_pTransport = aTrpt;
        m_pTransport->OpenWithSink(this);
        CCmString strServer;
        if (!m_bServer && m_pTransport->GetOption(CM_OPT_TRANSPORT_ROUTE, &strServer) == CM_OK)
            std::printf("connected through %s\n", strServer.c_str());
        if (!m_bServer)
            cm_send_bytes(*m_pTransport, "hello", 5);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        if (m_bServer) {
            m_pTransport->SendData(aData);
            return;
        }
        m_nStatus = 0;
        Stop(aData.FlattenChained());
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult aReason, ICmTransport*) override { Stop(cm_result_name(aReason)); }

    int m_nStatus = 1;  // 0: an answer came

private:
    void Stop(const std::string& aWhy) {
        std::printf("%s\n", aWhy.c_str());
        MainReactor()->StopEventLoop();
    }
    const BOOL m_bServer;
    CCmRefPtrT<ICmTransport> m_pTransport;
};

int main(int argc, char** argv) {
    CCmProxyRoute route;
    if (argc < 2 || CCmProxyRoute::FromUris(argv[1], route) != CM_OK ||
        CCmThreadManager::Instance()->InitMainThread(argc, argv))
        return 2;
    CCmConnectionManager* pManager = CCmConnectionManager::Instance();
    End server(TRUE), client(FALSE);
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    CCmRefPtrT<ICmConnector> pConnector;
    CCmInetAddr addr(argc > 2 ? argv[2] : "127.0.0.1:0");
    CmResult rv = argc > 2 ? CM_OK : pManager->CreateConnectionServer(TYPE, pAcceptor.ParaOut());
    if (pAcceptor && (rv = pAcceptor->StartListen(&server, addr)) == CM_OK)
        rv = pAcceptor->GetListenAddr(addr);
    if (rv == CM_OK)
        rv = pManager->CreateConnectionClient(TYPE, pConnector.ParaOut());
    if (rv == CM_OK)
        rv = cm_get_connect_options(pConnector.Get())->SetOption(CM_OPT_CONNECT_ROUTE, &route);
    if (rv != CM_OK)
        return 1;
    CCmTimeValue tvTimeout(20);
    pConnector->AsycConnect(&client, addr, &tvTimeout);
    MainReactor()->RunEventLoop();  // runs all callbacks
    return client.m_nStatus;
}
