// Counts over a connection that survives cuts:   reliable_counter ADDRESS:PORT COUNT
//
// Sends the numbers from 1 to COUNT to `talvo echo --type reliable`, ten every 10 ms, and checks that each comes back once and
// in order. Put `talvo flaky` in between: the numbers wait while the network is away, and none is lost or doubled.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "talvo/talvo.h"

class Counter : public ICmAcceptorConnectorSink,
                public ICmTransportSink,
                public ICmReconnectSink,
                public CCmTimerWrapperIDSink {
public:
    explicit Counter(int aCount) : m_nCount(aCount) {}

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        if (aReason != CM_OK)
            return Stop("cannot connect");
        m_pTransport = aTrpt;
        m_pTransport->OpenWithSink(this);
        ICmReconnectSink* pGaps = this;
        m_pTransport->SetOption(CM_OPT_TRANSPORT_RECONNECT_SINK, &pGaps);
        m_Timer.Schedule(this, CCmTimeValue(0, 10000));
    }
    void OnTimer(CCmTimerWrapperID*) override {
        for (int i = 0; i < 10 && m_nSent < m_nCount && !m_bFull; ++i)
            SendNext();
    }
    // One message is one number, also across a cut.
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        if (std::atoi(aData.FlattenChained().c_str()) != ++m_nReceived)
            Stop("a number is lost or doubled");
        else if (m_nReceived == m_nCount)
            Stop("all numbers came back");
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override { m_bFull = false; }
    void OnDisconnect(CmResult aReason, ICmTransport*) override { Stop(cm_result_name(aReason)); }

    // A program that need not show gaps does without these two.
    void OnSuspended(ICmTransport*, CmResult) override { std::printf("connecting again at %d of %d\n", m_nReceived, m_nSent); }
    void OnResumed(ICmTransport*, DWORD aMilliseconds) override { std::printf("back after %u ms\n", aMilliseconds); }

    int m_nReceived = 0;

private:
    void SendNext() {
        const std::string strNumber = std::to_string(m_nSent + 1);
        const CmResult rv = cm_send_bytes(*m_pTransport, strNumber.data(), static_cast<DWORD>(strNumber.size()));
        m_bFull = rv == CM_ERROR_PARTIAL_DATA;  // the send buffer is, so OnSend follows
        m_nSent += rv == CM_OK;
    }
    void Stop(const char* aWhy) {
        std::printf("%s\n", aWhy);
        m_Timer.Cancel();
        if (m_pTransport)
            m_pTransport->Disconnect(CM_OK);
        CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->StopEventLoop();
    }

    const int m_nCount;
    int m_nSent = 0;
    bool m_bFull = false;
    CCmRefPtrT<ICmTransport> m_pTransport;
    CCmTimerWrapperID m_Timer;
};

int main(int argc, char** argv) {
    const int nCount = argc > 2 ? std::atoi(argv[2]) : 1000;
    CCmThreadManager::Instance()->InitMainThread(argc, argv);
    Counter counter(nCount);
    CCmRefPtrT<ICmConnector> pConnector;
    CCmConnectionManager::Instance()->CreateConnectionClient(CCmConnectionManager::CTYPE_PDU_RELIABLE |
                                                                 CCmConnectionManager::CTYPE_RECONNECT_TOKEN |
                                                                 CCmConnectionManager::CTYPE_TCP,
                                                             pConnector.ParaOut());
    pConnector->AsycConnect(&counter, CCmInetAddr(argc > 1 ? argv[1] : "127.0.0.1:7000"));
    CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->RunEventLoop();
    return counter.m_nReceived == nCount ? 0 : 1;
}
