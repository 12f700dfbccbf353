// Sends all data of one client back over TLS and ends with it:   tls_echo_server server.pem server.key
#include <cstdio>

#include "talvo/talvo.h"

class EchoServer : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    bool Start(const char* aCertificate, const char* aKey) {
        CCmRefPtrT<CCmSslContext> pContext(new CCmSslContext);
        CCmInetAddr addr;
        if (pContext->AddCertificate(aCertificate, aKey) != CM_OK ||
            CCmConnectionManager::Instance()->CreateConnectionServer(CM_TRANSPORT_TYPE_TLS, m_pAcceptor.ParaOut()) != CM_OK ||
            cm_get_connect_options(m_pAcceptor.Get())->SetOption(CM_OPT_CONNECT_SSL_CONTEXT, &pContext) != CM_OK ||
            m_pAcceptor->StartListen(this, CCmInetAddr("127.0.0.1", 0)) != CM_OK || m_pAcceptor->GetListenAddr(addr) != CM_OK)
            return false;
        std::printf("listening on %s\n", cm_address_text(addr).c_str());
        return std::fflush(stdout) == 0;
    }
    void OnConnectIndication(CmResult, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        if (!m_pTransport && aTrpt->OpenWithSink(this) == CM_OK)
            m_pTransport = aTrpt;
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        if (m_pTransport->SendData(aData) != CM_ERROR_PARTIAL_DATA)
            return;
        m_pRest.reset(aData.DuplicateChained());  // the client is slow: no more is read until the rest has been sent
        SetPause(TRUE);
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {
        if (!m_pRest || m_pTransport->SendData(*m_pRest) != CM_ERROR_PARTIAL_DATA)
            SetPause(FALSE);
    }
    void OnDisconnect(CmResult aReason, ICmTransport*) override {
        std::printf("%s\n", aReason == CM_ERROR_NETWORK_TLS_CUT ? "the stream may be truncated" : "the client has closed");
        CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->StopEventLoop();
    }

private:
    void SetPause(BOOL aPause) { m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPause); }
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmTransport> m_pTransport;
    CCmChainPtr m_pRest;  // not yet taken by the transport
};

int main(int argc, char** argv) {
    CCmThreadManager::Instance()->InitMainThread(argc, argv);
    EchoServer server;
    if (argc < 3 || !server.Start(argv[1], argv[2]))
        return 1;
    const CmResult rv = CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->RunEventLoop();
    CCmConnectionManager::Instance()->Drain(nullptr);  // the process exits after the connections have ended
    return rv == CM_OK ? 0 : 1;
}
