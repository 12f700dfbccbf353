// The loading end of bench_growth_talvo.
#pragma once

#include <sys/types.h>

#include <deque>
#include <vector>

#include "benchmarks/support/histogram.h"
#include "talvo/talvo.h"

struct CGrowthWork {
    uint16_t m_wPort = 0;
    DWORD m_dwType = 0;
    size_t m_nConnections = 0;
    size_t m_nBusy = 100;
    double m_dSeconds = 1;
    double m_dWarmUp = 0.2;
    pid_t m_Server = 0;
};

// Main thread, which is the network thread. Any error ends the program.
class CGrowthLoad : public ICmAcceptorConnectorSink, public ICmTimerHandler {
public:
    explicit CGrowthLoad(const CGrowthWork& aWork);

    // Does the work and prints the results.
    void Run();

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

private:
    // One connection, with at most one message in flight.
    class CEnd : public ICmTransportSink {
    public:
        CEnd(CGrowthLoad& aLoad, ICmTransport* aTransport) : m_Load(aLoad), m_pTransport(aTransport) {}
        void Open();
        void Send();
        void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
        void OnSend(ICmTransport*, CCmTransportParameter*) override {}
        void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

    private:
        CGrowthLoad& m_Load;
        CCmRefPtrT<ICmTransport> m_pTransport;
        DWORD m_dwMissing = 0;  // bytes of the message in flight that are missing
        int64_t m_llSent = 0;
    };

    void ConnectNext(ICmConnector& aConnector);
    void Settled();
    void Answered(CEnd& aEnd, int64_t aLatency);
    void Schedule(double aSeconds);
    void Report();

    const CGrowthWork m_Work;
    std::vector<CCmRefPtrT<ICmConnector>> m_Connectors;
    std::deque<CEnd> m_Ends;
    size_t m_nAsked = 0;     // connections
    size_t m_nAnswered = 0;  // first messages
    bool m_bCounting = false;
    uint64_t m_ullMessages = 0;
    bench::CHistogram m_Latencies;
    double m_dKib = 0;
    int64_t m_llCpu = 0;
    int64_t m_llStart = 0;
};
