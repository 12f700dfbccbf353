// Sends a line over TLS, prints the answer and ends:   tls_echo_client localhost:7000 root.pem
#include <cstdio>

#include "talvo/talvo.h"

class Client : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    int Run(const char* aEndpoint, const char* aRoot) {
        CCmConnectionManager::Instance()->CreateConnectionClient(CM_TRANSPORT_TYPE_TLS, m_pConnector.ParaOut());
        CCmRefPtrT<CCmSslContext> pContext(new CCmSslContext);
        pContext->SetTrust(aRoot);  // instead of the system's roots; after a failure nothing is trusted
        cm_get_connect_options(m_pConnector.Get())->SetOption(CM_OPT_CONNECT_SSL_CONTEXT, &pContext);
        m_pConnector->AsycConnect(this, CCmInetAddr(aEndpoint));  // its host is the name in the certificate
        CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->RunEventLoop();
        m_pTransport.Reset();
        CCmConnectionManager::Instance()->Drain(nullptr);  // the process exits after the end of TLS has been sent
        return m_nStatus;
    }
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override {
        CCmFailure failure;
        cm_get_connect_options(aId)->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
        if (aReason != CM_OK || aTrpt->OpenWithSink(this) != CM_OK)
            return Stop((cm_result_name(aReason) + (", cannot " + failure.ToString())).c_str());
        m_pTransport = aTrpt;
        cm_send_bytes(*aTrpt, "hello\n", 6);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override {
        CCmSslInfo info;
        aTrptId->GetOption(CM_OPT_TRANSPORT_SSL_INFO, &info);
        m_nStatus = 0;
        Stop((aData.FlattenChained() + "over " + info.m_strCipher).c_str());
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult aReason, ICmTransport*) override { Stop(cm_result_name(aReason)); }

private:
    void Stop(const char* aWhy) {
        std::printf("%s\n", aWhy);
        CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->StopEventLoop();
    }
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    int m_nStatus = 1;
};

int main(int argc, char** argv) {
    CCmThreadManager::Instance()->InitMainThread(argc, argv);
    return argc == 3 ? Client().Run(argv[1], argv[2]) : 2;
}
