#include "benchmarks/growth/growth_load.h"

#include <algorithm>
#include <cstring>

#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_messages.h"

namespace {

constexpr DWORD SIZE = 64;
constexpr size_t AT_ONCE = 32;  // connects in flight

ICmReactor& Reactor() { return *CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN); }

}  // namespace

void CGrowthLoad::CEnd::Open() { bench::Expect(m_pTransport->OpenWithSink(this)); }

void CGrowthLoad::CEnd::Send() {
    char bytes[SIZE];
    std::memset(bytes, 'g', SIZE);
    CCmMessageBlock message(SIZE, bytes, CCmMessageBlock::DONT_DELETE, SIZE);
    m_dwMissing = SIZE;
    m_llSent = bench::NowNs();
    bench::Expect(m_pTransport->SendData(message));
}

void CGrowthLoad::CEnd::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    bench::Expect(aData.GetChainedLength() <= m_dwMissing ? CM_OK : CM_ERROR_UNEXPECTED);
    m_dwMissing -= aData.GetChainedLength();
    if (m_dwMissing == 0)
        m_Load.Answered(*this, bench::NowNs() - m_llSent);
}

void CGrowthLoad::CEnd::OnDisconnect(CmResult aReason, ICmTransport*) { bench::Expect(aReason); }

CGrowthLoad::CGrowthLoad(const CGrowthWork& aWork) : m_Work(aWork), m_dKib(-bench::ResidentKib(aWork.m_Server)) {}

void CGrowthLoad::Run() {
    for (size_t n = 0; n < std::min(AT_ONCE, m_Work.m_nConnections); ++n) {
        CCmRefPtrT<ICmConnector> pConnector;
        bench::Expect(CCmConnectionManager::Instance()->CreateConnectionClient(m_Work.m_dwType, pConnector.ParaOut()));
        m_Connectors.push_back(pConnector);
        ConnectNext(*pConnector);
    }
    Reactor().RunEventLoop();
    m_Connectors.clear();
    m_Ends.clear();
}

// Uses one of many loopback addresses, so that the ports do not run out.
void CGrowthLoad::ConnectNext(ICmConnector& aConnector) {
    if (m_nAsked == m_Work.m_nConnections)
        return;
    CCmInetAddr local(("127.0.0." + std::to_string(2 + m_nAsked++ % 200)).c_str(), 0);
    aConnector.AsycConnect(this, CCmInetAddr("127.0.0.1", m_Work.m_wPort), nullptr, &local);
}

void CGrowthLoad::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) {
    bench::Expect(aReason);
    CEnd& end = m_Ends.emplace_back(*this, aTrpt);
    end.Open();
    end.Send();
    ConnectNext(*static_cast<ICmConnector*>(aRequestId));
}

void CGrowthLoad::Answered(CEnd& aEnd, int64_t aLatency) {
    if (m_nAnswered < m_Work.m_nConnections) {
        if (++m_nAnswered == m_Work.m_nConnections)
            Settled();
        return;
    }
    if (m_bCounting) {
        ++m_ullMessages;
        m_Latencies.Record(aLatency);
    }
    aEnd.Send();
}

void CGrowthLoad::Settled() {
    m_dKib += bench::ResidentKib(m_Work.m_Server);
    for (size_t n = 0; n < std::min(m_Work.m_nBusy, m_Ends.size()); ++n)
        m_Ends[n].Send();
    Schedule(m_Work.m_dWarmUp);
}

void CGrowthLoad::Schedule(double aSeconds) {
    bench::Expect(Reactor().ScheduleTimer(this, nullptr, CCmTimeValue(0, static_cast<long>(aSeconds * 1e6)), 1));
}

// The end of the warm-up, and of the work.
void CGrowthLoad::OnTimeout(const CCmTimeValue&, void*) {
    if (m_bCounting) {
        Report();
        Reactor().StopEventLoop();
        return;
    }
    m_bCounting = true;
    m_llCpu = bench::CpuNs(m_Work.m_Server);
    m_llStart = bench::NowNs();
    Schedule(m_Work.m_dSeconds);
}

void CGrowthLoad::Report() {
    const double dMessages = static_cast<double>(m_ullMessages);
    bench::CReport report;
    report.Add("rate", dMessages * 1e9 / static_cast<double>(bench::NowNs() - m_llStart));
    report.Add("p50_us", m_Latencies.PercentileUs(0.5));
    report.Add("p99_us", m_Latencies.PercentileUs(0.99));
    report.Add("cpu_ns", static_cast<double>(bench::CpuNs(m_Work.m_Server) - m_llCpu) / dMessages);
    report.Add("kib_per_connection", m_dKib / static_cast<double>(m_Work.m_nConnections));
    report.Print();
}
