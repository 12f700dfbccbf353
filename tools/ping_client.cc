#include "tools/ping_client.h"

#include <algorithm>
#include <cstdio>

#include "tools/connecting.h"
#include "tools/connection_type.h"
#include "tools/memory.h"
#include "tools/percentiles.h"
#include "tools/sparkline.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr size_t SPARKLINE = 60;       // bars
constexpr int64_t SHOW_USEC = 200000;  // between two prints of the progress

CCmTimeValue Milliseconds(DWORD aMs) { return CCmTimeValue::FromUsec(int64_t{aMs} * 1000); }

}  // namespace

PingClient::PingClient(const Arguments& aArguments, Application& aApplication, Console& aConsole)
    : m_Arguments(aArguments),
      m_bMayLose(MayLose(aArguments.m_dwType)),
      m_Application(aApplication),
      m_Console(aConsole),
      m_FirstAddr(aArguments.m_bRace ? aArguments.m_vecRacers.front() : aArguments.m_Addr),
      m_strPeer(cm_address_text(m_FirstAddr)),
      m_strMessage(aArguments.m_dwSize, '\0') {}

PingClient::~PingClient() {
    if (m_pTransport)
        m_pTransport->Disconnect(CM_OK);
}

void PingClient::Start() {
    if (StartConnect(m_Arguments, this, m_pConnector) != CM_OK) {
        GiveUp({CAUSE_LOCAL, "cannot create a connector"});
        return;
    }
    // The connector's own time-out would end before a handshake does.
    RequireMemory(m_TimerAnswer.Schedule(this, Milliseconds(m_Arguments.m_dwTimeoutMs), 1));
}

void PingClient::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    if (aReason != CM_OK) {
        GiveUp(DescribeConnectFailure(m_FirstAddr, *m_pConnector, aReason));
        return;
    }
    m_pTransport = aTrpt;
    ReportConnection(m_Arguments, *m_pTransport, m_Console);
    if (m_Arguments.m_bRace) {
        m_strPeer = GetPeerText(*m_pTransport);
        m_Console.Report("connected to " + m_strPeer, JsonLine("connected").Add("peer", m_strPeer));
    }
    const DWORD dwMax = GetMaxMessage(*m_pTransport);
    if (!Open())
        GiveUp({CAUSE_BROKEN, "cannot use the connection"});
    else if (m_Arguments.m_dwSize > dwMax)
        GiveUp({CAUSE_USAGE, "--size: a message over this connection has at most " + std::to_string(dwMax) + " bytes"});
    else
        SendNext();
}

bool PingClient::Open() {
    ICmReconnectSink* pGaps = this;
    return m_pTransport->OpenWithSink(this) == CM_OK &&
           (!ConnectsAgain(m_Arguments.m_dwType) || m_pTransport->SetOption(CM_OPT_TRANSPORT_RECONNECT_SINK, &pGaps) == CM_OK);
}

void PingClient::SendNext() {
    ++m_dwSent;
    FillMessage();
    m_nTaken = 0;
    m_bWaiting = true;
    RequireMemory(m_TimerAnswer.Schedule(this, Milliseconds(m_Arguments.m_dwTimeoutMs), 1));
    m_llSent = CCmClock::GetTimeOfDayUsec();
    m_llStarted = m_llStarted ? m_llStarted : m_llSent;
    const CmResult rv = m_Outbox.Send(*m_pTransport, m_strMessage);
    // OnDisconnect reports a lost connection.
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        GiveUp({CAUSE_LOCAL, "cannot send: out of memory"});
}

// Consecutive messages differ, so that a late answer does not count as the answer to the next message.
void PingClient::FillMessage() {
    for (size_t i = 0; i < m_strMessage.size(); ++i)
        m_strMessage[i] = static_cast<char>((m_dwSent >> i % 4 * 8) + i * 7);
}

void PingClient::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    if (m_bWaiting && IsComingBack(aData)) {
        m_nTaken += aData.GetChainedLength();
        if (m_nTaken == m_strMessage.size())
            OnAnswer();
    } else if (!m_bMayLose) {
        GiveUp({CAUSE_PROTOCOL, "the peer does not echo: its answer differs from the message"});
    }
}

// TRUE: a part of the message, or the whole if the type keeps messages.
bool PingClient::IsComingBack(const CCmMessageBlock& aData) const {
    size_t nAt = m_nTaken;
    for (const CCmMessageBlock* p = &aData; p; p = p->GetNext()) {
        const std::string_view piece(p->GetTopLevelReadPtr(), p->GetTopLevelLength());
        if (m_strMessage.compare(nAt, piece.size(), piece) != 0)
            return false;
        nAt += piece.size();
    }
    return nAt == m_strMessage.size() || !KeepsMessages(m_Arguments.m_dwType);
}

void PingClient::OnAnswer() {
    const auto dwUsec = static_cast<DWORD>(CCmClock::GetTimeOfDayUsec() - m_llSent);
    m_bWaiting = false;
    m_vecUsec.push_back(dwUsec);
    m_TimerAnswer.Cancel();
    if (m_Arguments.m_dwIntervalMs > 0)
        m_Console.Report(std::to_string(m_strMessage.size()) + " bytes from " + m_strPeer + ": number " +
                             std::to_string(m_dwSent) + ", " + std::to_string(dwUsec) + " us",
                         JsonLine("answer").Add("number", m_dwSent).Add("usec", dwUsec));
    ShowProgress();
    GoOn();
}

// On a terminal only: elsewhere each answer has a line, or none is wanted.
void PingClient::ShowProgress() {
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    if (m_Console.GetOutput() != Console::TERMINAL || llNow - m_llShown < SHOW_USEC)
        return;
    m_llShown = llNow;
    const double dPerSecond = 1e6 * m_dwSent / static_cast<double>(std::max<int64_t>(llNow - m_llStarted, 1));
    const auto ullLeft = static_cast<uint64_t>((m_Arguments.m_dwCount - m_dwSent) / std::max(dPerSecond, 1e-3));
    const size_t stShown = std::min(m_vecUsec.size(), SPARKLINE);
    m_Console.Progress(std::to_string(m_dwSent) + " of " + std::to_string(m_Arguments.m_dwCount) + ", " +
                           std::to_string(static_cast<uint64_t>(dPerSecond)) + "/s, " + FormatDuration(ullLeft) + " left " +
                           MakeSparkline({m_vecUsec.end() - static_cast<long>(stShown), m_vecUsec.end()}, SPARKLINE),
                       JsonLine("progress"));
}

void PingClient::OnNoAnswer() {
    m_bWaiting = false;
    if (m_bMayLose) {
        m_Console.Report("number " + std::to_string(m_dwSent) + " is lost", JsonLine("lost").Add("number", m_dwSent));
        GoOn();
        return;
    }
    GiveUp({CAUSE_TIMEOUT, "no answer from " + m_strPeer + " within " + std::to_string(m_Arguments.m_dwTimeoutMs) + " ms"});
}

void PingClient::GoOn() {
    if (m_dwSent == m_Arguments.m_dwCount)
        Close(m_vecUsec.empty() ? EXIT_FAILED : EXIT_OK);
    else if (m_Arguments.m_dwIntervalMs == 0)
        SendNext();
    else
        RequireMemory(m_TimerNext.Schedule(this, Milliseconds(m_Arguments.m_dwIntervalMs), 1));
}

void PingClient::OnSend(ICmTransport*, CCmTransportParameter*) { m_Outbox.SendRest(*m_pTransport); }

void PingClient::OnDisconnect(CmResult aReason, ICmTransport*) {
    GiveUp(DescribeEnd("the connection to " + m_strPeer, *m_pTransport, aReason));
}

void PingClient::OnSuspended(ICmTransport* aTrptId, CmResult aReason) {
    m_TimerAnswer.Cancel();
    const std::string strReason = DescribeEnd("the connection", *aTrptId, aReason).m_strReason;
    m_Console.Report(strReason + "; connecting again", JsonLine("suspended").Add("reason", strReason));
}

void PingClient::OnResumed(ICmTransport*, DWORD aMilliseconds) {
    ++m_dwGaps;
    m_ullGapMs += aMilliseconds;
    m_Console.Report("connected again after " + std::to_string(aMilliseconds) + " ms",
                     JsonLine("resumed").Add("msec", aMilliseconds));
    if (m_bWaiting)
        RequireMemory(m_TimerAnswer.Schedule(this, Milliseconds(m_Arguments.m_dwTimeoutMs), 1));
}

void PingClient::OnTimer(CCmTimerWrapperID* aId) {
    if (aId == &m_TimerNext)
        SendNext();
    else if (m_pTransport)
        OnNoAnswer();
    else
        GiveUp({CAUSE_TIMEOUT,
                "cannot connect to " + m_strPeer + ": no answer within " + std::to_string(m_Arguments.m_dwTimeoutMs) + " ms"});
}

void PingClient::ReportStatistics() {
    if (m_dwSent == 0)
        return;
    const size_t nBack = m_vecUsec.size();
    const size_t nLost = m_dwSent - nBack;
    std::string strText = std::to_string(m_dwSent) + " sent, " + std::to_string(nBack) + " came back";
    JsonLine json("statistics");
    json.Add("sent", m_dwSent).Add("received", nBack);
    if (m_bMayLose) {
        char szLoss[32];
        std::snprintf(szLoss, sizeof szLoss, "%.1f", 100.0 * static_cast<double>(nLost) / m_dwSent);
        strText += ", " + std::to_string(nLost) + " lost (" + szLoss + "%)";
        json.Add("lost", nLost);
    }
    if (ConnectsAgain(m_Arguments.m_dwType)) {
        strText += ", " + std::to_string(m_dwGaps) + " gaps of " + std::to_string(m_ullGapMs) + " ms in all";
        json.Add("gaps", m_dwGaps).Add("gap_msec", m_ullGapMs);
    }
    const Percentiles p = ComputePercentiles(m_vecUsec);
    if (nBack > 0)
        strText += "; round trip in us: min " + std::to_string(p.m_dwMin) + ", p50 " + std::to_string(p.m_dwP50) + ", p90 " +
                   std::to_string(p.m_dwP90) + ", p99 " + std::to_string(p.m_dwP99) + ", max " + std::to_string(p.m_dwMax);
    if (m_Console.GetOutput() == Console::TERMINAL && nBack > 1)
        strText += "; " + MakeSparkline(m_vecUsec, SPARKLINE);
    if (nBack > 0)
        json.Add("min_usec", p.m_dwMin).Add("p50_usec", p.m_dwP50).Add("p90_usec", p.m_dwP90);
    if (nBack > 0)
        json.Add("p99_usec", p.m_dwP99).Add("max_usec", p.m_dwMax);
    m_Console.Result(strText, json);
}

void PingClient::GiveUp(const Failure& aFailure) {
    m_Console.Problem(aFailure, "peer", m_strPeer);
    Close(EXIT_FAILED);
}

void PingClient::Close(int aStatus) {
    m_TimerNext.Cancel();
    m_TimerAnswer.Cancel();
    m_Outbox.Clear();
    m_pConnector.Reset();
    if (m_pTransport)
        m_pTransport->Disconnect(CM_OK);
    m_pTransport.Reset();
    m_Application.Finish(aStatus);
}

}  // namespace tool
