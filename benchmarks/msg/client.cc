#include "benchmarks/msg/client.h"

#include <algorithm>
#include <cstdio>

#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_messages.h"
#include "benchmarks/support/talvo_process.h"

namespace msg {
namespace {

constexpr uint64_t SHORTEST_WARM_UP = 100;

ICmReactor* MainReactor() { return CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN); }

}  // namespace

CClient::CClient(const CClientWork& aWork) : m_Work(aWork) {}

int CClient::Run(DWORD aType) {
    CCmRefPtrT<ICmConnector> pConnector;
    bench::Expect(CCmConnectionManager::Instance()->CreateConnectionClient(aType, pConnector.ParaOut()));
    pConnector->AsycConnect(this, CCmInetAddr("127.0.0.1", m_Work.m_wPort));
    MainReactor()->RunEventLoop();
    m_pConnection.Reset();
    return m_nStatus;
}

void CClient::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    if (aReason != CM_OK)
        return End("cannot connect");
    m_pConnection = aTrpt;
    bench::Expect(aTrpt->OpenWithSink(this));
    bench::Expect(bench::PrepareForMessages(*aTrpt, m_Work.m_dwSize));
    if (!m_Work.m_bPing)
        return StartPart(std::max(m_Work.m_ullCount / 10, SHORTEST_WARM_UP));
    m_llStart = bench::NowNs();
    SendPing();
}

void CClient::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    const CSeen seen(aData);
    if (m_Work.m_bPing)
        return TakePong(seen);
    if (seen.m_cKind != END || seen.m_dwSize != ANSWER_SIZE)
        return End("the server answers something else than E");
    TakeCounts(ReadAnswer(aData));
}

void CClient::OnSend(ICmTransport*, CCmTransportParameter*) {
    if (m_Work.m_bPing)
        SendMade();
    else
        SendPart();
}

void CClient::OnDisconnect(CmResult, ICmTransport*) { End("the server has gone"); }

// aData D, then an E.
void CClient::StartPart(uint64_t aData) {
    m_ullPartEnd = m_ullNumber + aData;
    m_bEndMade = false;
    SendPart();
}

// Sends until the connection takes no more. OnSend continues, first with the refused block.
void CClient::SendPart() {
    while (!m_Made || SendMade()) {
        if (m_ullNumber < m_ullPartEnd) {
            Make(DATA, m_Work.m_dwSize);
            ++m_ullNumber;
        } else if (!m_bEndMade) {
            Make(END, HEAD_SIZE);
            m_bEndMade = true;
        } else {
            return;
        }
    }
}

// A server may count from its E on, or through the connection's whole life.
void CClient::TakeCounts(const CCounts& aCounts) {
    const uint64_t ullSent = m_bWarm ? m_Work.m_ullCount : m_ullNumber;
    if (aCounts.m_ullFaults != 0)
        return End("the server has found faults");
    if (aCounts.m_ullData != ullSent && aCounts.m_ullData - m_ullWarmUpCount != ullSent)
        return End("the server has counted another number of messages");
    if (!m_bWarm) {
        m_bWarm = true;
        m_ullWarmUpCount = aCounts.m_ullData;
        m_llStart = bench::NowNs();
        return StartPart(m_Work.m_ullCount);
    }
    const double dRate = static_cast<double>(m_Work.m_ullCount) * 1e9 / static_cast<double>(bench::NowNs() - m_llStart);
    bench::CReport report;
    report.Add("msgs_s", dRate);
    report.Add("mb_s", dRate * m_Work.m_dwSize / 1e6);
    report.Print();
    End(nullptr);
}

void CClient::SendPing() {
    m_llPingSent = bench::NowNs();
    Make(PING, m_Work.m_dwSize);
    SendMade();
}

void CClient::TakePong(const CSeen& aSeen) {
    const int64_t llNow = bench::NowNs();
    if (aSeen.m_cKind != PING || aSeen.m_ullNumber != m_ullNumber || aSeen.m_dwSize != m_Work.m_dwSize || !aSeen.IsWhole())
        return End("something else than the P that was sent came back");
    m_Latencies.Record(llNow - m_llPingSent);
    if (++m_ullNumber < m_Work.m_ullCount)
        return SendPing();
    bench::CReport report;
    report.Add("msgs_s", static_cast<double>(m_Work.m_ullCount) * 1e9 / static_cast<double>(llNow - m_llStart));
    report.Add("p50_us", m_Latencies.PercentileUs(0.5));
    report.Add("p99_us", m_Latencies.PercentileUs(0.99));
    report.Add("p999_us", m_Latencies.PercentileUs(0.999));
    report.Print();
    End(nullptr);
}

// In fresh memory, as applications do.
void CClient::Make(EKind aKind, DWORD aSize) { Fill(m_Made.emplace(aSize), aKind, m_ullNumber, aSize); }

// False: not now; OnSend or OnDisconnect follows.
bool CClient::SendMade() {
    const CmResult rv = m_Made ? m_pConnection->SendData(*m_Made) : CM_OK;
    if (rv == CM_ERROR_PARTIAL_DATA || rv == CM_ERROR_NULL_POINTER)
        return false;
    bench::Expect(rv);
    m_Made.reset();
    return true;
}

// aFault: null on success.
void CClient::End(const char* aFault) {
    if (aFault) {
        std::fprintf(stderr, "%s\n", aFault);
        m_nStatus = 1;
    }
    MainReactor()->StopEventLoop();
}

}  // namespace msg
