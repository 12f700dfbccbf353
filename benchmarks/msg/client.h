// The client of talvo_bench_msg.
#pragma once

#include <optional>

#include "benchmarks/msg/message.h"
#include "benchmarks/support/histogram.h"

namespace msg {

struct CClientWork {
    uint16_t m_wPort = 0;
    bool m_bPing = false;  // otherwise stream
    DWORD m_dwSize = 64;
    uint64_t m_ullCount = 1;
};

// Main thread. All sends are made inside upcalls, so that the library can gather them.
class CClient : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    explicit CClient(const CClientWork& aWork);

    // Connects, does the work, prints the results. Returns the program's exit status.
    int Run(DWORD aType);

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

private:
    void StartPart(uint64_t aData);
    void SendPart();
    void TakeCounts(const CCounts& aCounts);
    void SendPing();
    void TakePong(const CSeen& aSeen);
    void Make(EKind aKind, DWORD aSize);
    bool SendMade();
    void End(const char* aFault);

    const CClientWork m_Work;
    CCmRefPtrT<ICmTransport> m_pConnection;
    std::optional<CCmMessageBlock> m_Made;  // created and not yet taken by the connection
    uint64_t m_ullNumber = 0;               // of the next D, or of the P in flight
    uint64_t m_ullPartEnd = 0;              // the number behind the last D of this part
    bool m_bEndMade = false;                // the E of this part was created, too
    bool m_bWarm = false;                   // the current part counts
    uint64_t m_ullWarmUpCount = 0;          // the server's count before that part
    int64_t m_llStart = 0;
    int64_t m_llPingSent = 0;
    bench::CHistogram m_Latencies;
    int m_nStatus = 0;
};

}  // namespace msg
