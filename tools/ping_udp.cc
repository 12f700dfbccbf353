#include <cstdio>
#include <string>
#include <vector>

#include "tools/application.h"
#include "tools/commands.h"
#include "tools/console.h"
#include "tools/percentiles.h"

namespace tool {

namespace {

// Sends a datagram, waits for it to come back unchanged or for the time-out, and so on. Main thread.
class UdpPingClient : private ICmAcceptorConnectorSink, private ICmTransportSink, private CCmTimerWrapperIDSink {
public:
    UdpPingClient(const Arguments& aArguments, Application& aApplication, Console& aConsole)
        : m_Arguments(aArguments), m_Application(aApplication), m_Console(aConsole), m_strMessage(aArguments.m_dwSize, '\0') {}
    ~UdpPingClient() override {
        if (m_pTransport)
            m_pTransport->Disconnect(CM_OK);
    }

    void Start();
    void ReportStatistics();

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    void SendNext();
    void Next();
    void Finish(int aStatus);

    const Arguments& m_Arguments;
    Application& m_Application;
    Console& m_Console;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    CCmTimerWrapperID m_TimerNext;
    CCmTimerWrapperID m_TimerAnswer;  // runs while an answer is awaited
    std::string m_strMessage;         // the last one sent
    bool m_bWaiting = false;
    int64_t m_llSent = 0;
    DWORD m_dwSent = 0;
    std::vector<DWORD> m_vecUsec;
};

CCmTimeValue Milliseconds(DWORD aMs) { return CCmTimeValue::FromUsec(int64_t{aMs} * 1000); }

void UdpPingClient::Start() {
    CCmConnectionManager* pManager = CCmConnectionManager::Instance();
    if (!pManager || pManager->CreateConnectionClient(CCmConnectionManager::CTYPE_UDP, m_pConnector.ParaOut()) != CM_OK) {
        m_Console.Problem("cannot connect: the library gives no connector");
        Finish(EXIT_FAILED);
        return;
    }
    CCmTimeValue tvTimeout = Milliseconds(m_Arguments.m_dwTimeoutMs);
    m_pConnector->AsycConnect(this, m_Arguments.m_Endpoint.GetInetAddr(), &tvTimeout);
}

void UdpPingClient::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    if (aReason != CM_OK || aTrpt->OpenWithSink(this) != CM_OK) {
        m_Console.Problem(DescribeConnectFailure(m_Arguments.m_Endpoint, aReason));
        Finish(EXIT_FAILED);
        return;
    }
    m_pTransport = aTrpt;
    SendNext();
}

// No two in a row are alike, so that one that comes too late is not taken for the next.
void UdpPingClient::SendNext() {
    ++m_dwSent;
    for (size_t i = 0; i < m_strMessage.size(); ++i)
        m_strMessage[i] = static_cast<char>(m_dwSent >> i % 4 * 8);
    m_bWaiting = true;
    m_TimerAnswer.Schedule(this, Milliseconds(m_Arguments.m_dwTimeoutMs), 1);
    m_llSent = CCmClock::GetTimeOfDayUsec();
    CCmMessageBlock block(m_Arguments.m_dwSize, m_strMessage.data(), CCmMessageBlock::DONT_DELETE, m_Arguments.m_dwSize);
    m_pTransport->SendData(block);  // what it does not take counts as lost
}

void UdpPingClient::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    if (!m_bWaiting || aData.FlattenChained() != m_strMessage)
        return;
    m_bWaiting = false;
    m_TimerAnswer.Cancel();
    const auto dwUsec = static_cast<DWORD>(CCmClock::GetTimeOfDayUsec() - m_llSent);
    m_vecUsec.push_back(dwUsec);
    if (m_Arguments.m_dwIntervalMs > 0)
        m_Console.Report(std::to_string(m_strMessage.size()) + " bytes from " + m_Arguments.m_Endpoint.GetText() + ": number " +
                             std::to_string(m_dwSent) + ", " + std::to_string(dwUsec) + " us",
                         JsonLine("answer").Add("number", m_dwSent).Add("usec", dwUsec));
    Next();
}

void UdpPingClient::OnTimer(CCmTimerWrapperID* aId) {
    if (aId == &m_TimerNext) {
        SendNext();
        return;
    }
    m_bWaiting = false;
    m_Console.Report("number " + std::to_string(m_dwSent) + " is lost", JsonLine("lost").Add("number", m_dwSent));
    Next();
}

void UdpPingClient::Next() {
    if (m_dwSent == m_Arguments.m_dwCount)
        Finish(m_vecUsec.empty() ? EXIT_FAILED : EXIT_OK);
    else if (m_Arguments.m_dwIntervalMs == 0)
        SendNext();
    else
        m_TimerNext.Schedule(this, Milliseconds(m_Arguments.m_dwIntervalMs), 1);
}

void UdpPingClient::OnDisconnect(CmResult aReason, ICmTransport*) {
    m_Console.Problem("nobody receives at " + m_Arguments.m_Endpoint.GetText() + " (" + cm_result_name(aReason) + ")");
    Finish(EXIT_FAILED);
}

void UdpPingClient::ReportStatistics() {
    if (m_dwSent == 0)
        return;
    const size_t nBack = m_vecUsec.size();
    const size_t nLost = m_dwSent - nBack;
    char szLoss[32];
    std::snprintf(szLoss, sizeof szLoss, "%.1f", 100.0 * static_cast<double>(nLost) / m_dwSent);
    const Percentiles p = ComputePercentiles(m_vecUsec);
    std::string strText = std::to_string(m_dwSent) + " sent, " + std::to_string(nBack) + " came back, " +
                          std::to_string(nLost) + " lost (" + szLoss + "%)";
    if (nBack > 0)
        strText += "; round trip in us: min " + std::to_string(p.m_dwMin) + ", p50 " + std::to_string(p.m_dwP50) + ", p90 " +
                   std::to_string(p.m_dwP90) + ", p99 " + std::to_string(p.m_dwP99) + ", max " + std::to_string(p.m_dwMax);
    m_Console.Report(strText, JsonLine("statistics")
                                  .Add("sent", m_dwSent)
                                  .Add("received", nBack)
                                  .Add("lost", nLost)
                                  .Add("min_usec", p.m_dwMin)
                                  .Add("p50_usec", p.m_dwP50)
                                  .Add("p90_usec", p.m_dwP90)
                                  .Add("p99_usec", p.m_dwP99)
                                  .Add("max_usec", p.m_dwMax));
}

void UdpPingClient::Finish(int aStatus) {
    m_TimerNext.Cancel();
    m_TimerAnswer.Cancel();
    if (m_pTransport)
        m_pTransport->Disconnect(CM_OK);
    m_pTransport.Reset();
    m_Application.Finish(aStatus);
}

}  // namespace

int RunPingUdp(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    UdpPingClient client(aArguments, application, console);
    client.Start();
    const int nStatus = application.Run();
    client.ReportStatistics();
    return nStatus;
}

}  // namespace tool
