// Connects to the first of several servers that answers, prints its echo and ends:   race HOST:PORT...
//
// The connections start 250 ms apart, in the order of the arguments, and a failure starts the next one at once. All servers but
// the winner see a connection that ends without data, or none.
#include <cstdio>

#include "talvo/talvo.h"

class Racer : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    void Start(int aCount, char** aEndpoints) {
        CCmConnectionManager* pManager = CCmConnectionManager::Instance();
        if (!pManager || pManager->CreateDetectionConnectionClient(m_pRace.ParaOut()) != CM_OK)
            return Stop("cannot start");
        for (int i = 0; i < aCount; ++i) {
            const CCmInetAddr addr(aEndpoints[i]);
            if (m_pRace->AddConnection(CCmConnectionManager::CTYPE_TCP, addr) != CM_OK)
                std::printf("%s does not take part\n", aEndpoints[i]);
        }
        CCmTimeValue tvTimeout(10);
        m_pRace->StartDetectionConnect(this, &tvTimeout);
    }

    // The one indication; all other connections are closed.
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override {
        CCmFailure failure;
        cm_get_connect_options(aId)->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
        if (aReason != CM_OK)
            return Stop(("all have failed; the first one: cannot " + failure.ToString()).c_str());
        CCmInetAddr addr;
        m_pTransport = aTrpt;
        m_pTransport->GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &addr);
        std::printf("connected to %s\n", cm_address_text(addr).c_str());
        char szLine[] = "hello\n";
        CCmMessageBlock block(6, szLine, CCmMessageBlock::DONT_DELETE, 6);
        m_pTransport->OpenWithSink(this);
        m_pTransport->SendData(block);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        std::printf("%s", aData.FlattenChained().c_str());
        m_nStatus = 0;
        Stop("that was the answer");
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override { Stop("the server has closed the connection"); }

    int m_nStatus = 1;  // 0: an answer came

private:
    void Stop(const char* aWhy) {
        std::printf("%s\n", aWhy);
        CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->StopEventLoop();
    }
    CCmRefPtrT<ICmDetectionConnector> m_pRace;
    CCmRefPtrT<ICmTransport> m_pTransport;
};

int main(int argc, char** argv) {
    if (CCmThreadManager::Instance()->InitMainThread(argc, argv) != CM_OK)
        return 1;
    Racer racer;
    racer.Start(argc - 1, argv + 1);
    CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->RunEventLoop();  // runs all callbacks
    return racer.m_nStatus;
}
