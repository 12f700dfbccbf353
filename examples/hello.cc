// Connects, sends a line, prints the answer and ends:   hello 127.0.0.1:7000
#include <cstdio>

#include "talvo/talvo.h"

class Hello : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override {
        CCmFailure failure;
        cm_get_connect_options(aId)->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
        if (aReason != CM_OK)
            return Stop(("cannot " + failure.ToString()).c_str());
        char szLine[] = "hello\n";
        CCmMessageBlock block(6, szLine, CCmMessageBlock::DONT_DELETE, 6);
        m_pTransport = aTrpt;
        m_pTransport->OpenWithSink(this);
        m_pTransport->SendData(block);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        std::printf("%s", aData.FlattenChained().c_str());
        m_nStatus = 0;
        Stop("that was the answer");
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport* aTrptId) override {
        CCmFailure failure;
        aTrptId->GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &failure);
        Stop(failure ? failure.ToString().c_str() : "the server has closed the connection");
    }

    int m_nStatus = 1;  // 0: an answer came

private:
    void Stop(const char* aWhy) {
        std::printf("%s\n", aWhy);
        CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->StopEventLoop();
    }
    CCmRefPtrT<ICmTransport> m_pTransport;
};

int main(int argc, char** argv) {
    CCmThreadManager::Instance()->InitMainThread(argc, argv);
    Hello hello;
    CCmRefPtrT<ICmConnector> pConnector;
    CCmConnectionManager::Instance()->CreateConnectionClient(CCmConnectionManager::CTYPE_TCP, pConnector.ParaOut());
    pConnector->AsycConnect(&hello, CCmInetAddr(argc > 1 ? argv[1] : "127.0.0.1:7000"));
    CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->RunEventLoop();  // runs all callbacks
    return hello.m_nStatus;
}
