#include "tools/ping_client.h"

#include "tools/percentiles.h"

namespace tool {

PingClient::PingClient(const Arguments& aArguments, Application& aApplication, Console& aConsole)
    : m_Arguments(aArguments), m_Application(aApplication), m_Console(aConsole), m_strMessage(aArguments.m_dwSize, '\0') {}

PingClient::~PingClient() {
    if (m_pTransport)
        m_pTransport->Disconnect(CM_OK);
}

void PingClient::Start() {
    CCmConnectionManager* pManager = CCmConnectionManager::Instance();
    if (!pManager || pManager->CreateConnectionClient(CCmConnectionManager::CTYPE_TCP, m_pConnector.ParaOut()) != CM_OK) {
        GiveUp("cannot connect: the library gives no connector");
        return;
    }
    CCmTimeValue tvTimeout = CCmTimeValue::FromUsec(int64_t{m_Arguments.m_dwTimeoutMs} * 1000);
    m_pConnector->AsycConnect(this, m_Arguments.m_Endpoint.GetInetAddr(), &tvTimeout);
}

void PingClient::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    if (aReason != CM_OK) {
        GiveUp(DescribeConnectFailure(m_Arguments.m_Endpoint, aReason));
        return;
    }
    m_pTransport = aTrpt;
    if (m_pTransport->OpenWithSink(this) != CM_OK)
        GiveUp("cannot use the connection");
    else
        SendNext();
}

void PingClient::SendNext() {
    FillMessage();
    m_nTaken = 0;
    m_bWaiting = true;
    ++m_dwSent;
    m_TimerAnswer.Schedule(this, CCmTimeValue::FromUsec(int64_t{m_Arguments.m_dwTimeoutMs} * 1000), 1);
    m_llSent = CCmClock::GetTimeOfDayUsec();
    const CmResult rv = m_Outbox.Send(*m_pTransport, m_strMessage);
    // Of a lost connection OnDisconnect tells.
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        GiveUp("cannot send: out of memory");
}

// No two messages in a row are alike, so an answer to the one before is not taken for the answer to this.
void PingClient::FillMessage() {
    for (size_t i = 0; i < m_strMessage.size(); ++i)
        m_strMessage[i] = static_cast<char>(m_dwSent + 1 + i * 7);
}

void PingClient::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    for (const CCmMessageBlock* p = &aData; p; p = p->GetNext()) {
        if (!TakeBack({p->GetTopLevelReadPtr(), p->GetTopLevelLength()})) {
            GiveUp("the peer does not echo: it answers something else than it was sent");
            return;
        }
    }
    if (m_bWaiting && m_nTaken == m_strMessage.size())
        OnAnswer();
}

bool PingClient::TakeBack(std::string_view aBytes) {
    if (!m_bWaiting || m_strMessage.compare(m_nTaken, aBytes.size(), aBytes) != 0)
        return aBytes.empty();
    m_nTaken += aBytes.size();
    return true;
}

void PingClient::OnAnswer() {
    const auto dwUsec = static_cast<DWORD>(CCmClock::GetTimeOfDayUsec() - m_llSent);
    m_bWaiting = false;
    m_vecUsec.push_back(dwUsec);
    m_TimerAnswer.Cancel();
    const DWORD dwInterval = m_Arguments.m_dwIntervalMs;
    if (dwInterval > 0)
        m_Console.Report(std::to_string(m_strMessage.size()) + " bytes from " + m_Arguments.m_Endpoint.GetText() + ": number " +
                             std::to_string(m_dwSent) + ", " + std::to_string(dwUsec) + " us",
                         JsonLine("answer").Add("number", m_dwSent).Add("usec", dwUsec));
    if (m_dwSent == m_Arguments.m_dwCount)
        Close(EXIT_OK);
    else if (dwInterval == 0)
        SendNext();
    else
        m_TimerNext.Schedule(this, CCmTimeValue::FromUsec(int64_t{dwInterval} * 1000), 1);
}

void PingClient::OnSend(ICmTransport*, CCmTransportParameter*) { m_Outbox.SendRest(*m_pTransport); }

void PingClient::OnDisconnect(CmResult aReason, ICmTransport*) {
    GiveUp("the connection to " + m_Arguments.m_Endpoint.GetText() + " broke (" + cm_result_name(aReason) + ")");
}

void PingClient::OnTimer(CCmTimerWrapperID* aId) {
    if (aId == &m_TimerNext)
        SendNext();
    else
        GiveUp("no answer from " + m_Arguments.m_Endpoint.GetText() + " within " + std::to_string(m_Arguments.m_dwTimeoutMs) +
               " ms");
}

void PingClient::ReportStatistics() {
    if (m_dwSent == 0)
        return;
    const size_t nBack = m_vecUsec.size();
    const Percentiles p = ComputePercentiles(m_vecUsec);
    std::string strText = std::to_string(m_dwSent) + " sent, " + std::to_string(nBack) + " came back";
    if (nBack > 0)
        strText += "; round trip in us: min " + std::to_string(p.m_dwMin) + ", p50 " + std::to_string(p.m_dwP50) + ", p90 " +
                   std::to_string(p.m_dwP90) + ", p99 " + std::to_string(p.m_dwP99) + ", max " + std::to_string(p.m_dwMax);
    m_Console.Report(strText, JsonLine("statistics")
                                  .Add("sent", m_dwSent)
                                  .Add("received", nBack)
                                  .Add("min_usec", p.m_dwMin)
                                  .Add("p50_usec", p.m_dwP50)
                                  .Add("p90_usec", p.m_dwP90)
                                  .Add("p99_usec", p.m_dwP99)
                                  .Add("max_usec", p.m_dwMax));
}

void PingClient::GiveUp(const std::string& aText) {
    m_Console.Problem(aText);
    Close(EXIT_FAILED);
}

void PingClient::Close(int aStatus) {
    m_TimerNext.Cancel();
    m_TimerAnswer.Cancel();
    if (m_pTransport)
        m_pTransport->Disconnect(CM_OK);
    m_pTransport.Reset();
    m_Application.Finish(aStatus);
}

}  // namespace tool
