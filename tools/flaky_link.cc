#include "tools/flaky_link.h"

#include "tools/connecting.h"
#include "tools/memory.h"

namespace tool {

namespace {

constexpr long CLOSING_SECONDS = 1;

}  // namespace

FlakyLink::FlakyLink(const Arguments& aArguments, DWORD aNumber, FlakyLinkOwner& aOwner, Console& aConsole)
    : m_Arguments(aArguments),
      m_Plan(aArguments.m_Flaky),
      m_dwNumber(aNumber),
      m_Owner(aOwner),
      m_Console(aConsole),
      m_Dice(aArguments.m_Flaky, aNumber),
      m_FromClient(*this, m_FromTarget, aArguments.m_Flaky.m_dwDelayMs),
      m_FromTarget(*this, m_FromClient, aArguments.m_Flaky.m_dwDelayMs) {}

FlakyLink::~FlakyLink() {
    if (m_pConnector)
        m_pConnector->CancelConnect();
    m_FromClient.Close();
    m_FromTarget.Close();
}

void FlakyLink::Start(ICmTransport* aClient) {
    m_FromClient.SetTransport(aClient);
    CCmTimeValue tvTimeout(CONNECT_SECONDS);
    if (MakeConnector(m_Arguments, m_pConnector) == CM_OK)
        m_pConnector->AsycConnect(this, m_Arguments.m_AddrTarget, &tvTimeout);
    else
        Over(RESET);
}

void FlakyLink::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    if (aReason != CM_OK) {
        m_Console.Problem(DescribeConnectFailure(m_Arguments.m_AddrTarget, *m_pConnector, aReason), "peer",
                          cm_address_text(m_Arguments.m_AddrTarget));
        Over(RESET);
        return;
    }
    m_FromTarget.SetTransport(aTrpt);
    if (m_FromClient.Open() != CM_OK || m_FromTarget.Open() != CM_OK)
        Over(RESET);
    else
        PlanFault();
}

void FlakyLink::PlanFault() {
    if (m_Plan.m_dwBytes > 0)
        m_dwBudget = m_Dice.Around(m_Plan.m_dwBytes);
    else if (!m_Plan.m_bTogether)
        RequireMemory(
            m_TimerFault.Schedule(this, CCmTimeValue::FromUsec(int64_t{m_Dice.Around(m_Plan.m_dwEveryMs)} * 1000), 1));
}

void FlakyLink::MakeFault() {
    m_dwBudget = MOST_BYTES;
    if (m_Owner.TakeFault())
        Strike(m_Dice.ChooseFault());
}

void FlakyLink::Strike(const std::string& aFault) {
    if (m_State != OPEN || !m_FromTarget.IsOpen())
        return;
    m_Console.Report(
        "connection " + std::to_string(m_dwNumber) + ": " + aFault + " after " + std::to_string(m_ullBytes) + " bytes",
        JsonLine("fault").Add("connection", m_dwNumber).Add("fault", aFault).Add("bytes", m_ullBytes));
    if (aFault == "close") {
        CloseSlowly();
    } else if (aFault == "reset") {
        Over(RESET);
    } else if (aFault == "stall") {
        m_State = STALLED;
        m_FromClient.Hold(true);
        m_FromTarget.Hold(true);
        RequireMemory(m_TimerEnd.Schedule(this, CCmTimeValue::FromUsec(int64_t{m_Plan.m_dwStallMs} * 1000), 1));
    } else {
        m_State = HALVED;
        (m_Dice.Flip() ? m_FromClient : m_FromTarget).Drop();
    }
}

// Reads on for a moment: the close of a socket with unread data would be a reset.
void FlakyLink::CloseSlowly() {
    m_State = CLOSING;
    for (FlakyLane* pLane : {&m_FromClient, &m_FromTarget}) {
        pLane->Drop();
        pLane->EndSending();
    }
    RequireMemory(m_TimerEnd.Schedule(this, CCmTimeValue(CLOSING_SECONDS), 1));
}

void FlakyLink::OnTimer(CCmTimerWrapperID* aId) {
    if (aId == &m_TimerFault) {
        MakeFault();
    } else if (m_State == CLOSING) {
        Over(ORDERLY);
    } else if (m_State == STALLED) {
        m_State = OPEN;
        PlanFault();
        m_FromClient.Hold(false);
        m_FromTarget.Hold(false);
    }
}

void FlakyLink::OnForwarded(DWORD aBytes) {
    m_ullBytes += aBytes;
    m_Owner.OnBytes(aBytes);
    if (m_dwBudget == MOST_BYTES)
        return;
    m_dwBudget -= aBytes;
    if (m_dwBudget == 0)
        MakeFault();
}

void FlakyLink::OnLaneEnd(FlakyLane& aLane) {
    if (++m_nEnds == 2 || Other(aLane).IsDropping())
        Over(ORDERLY);
}

// The peer of a lost direction does not notice the end.
void FlakyLink::OnLaneBroken(FlakyLane& aLane) {
    const bool bUnnoticed = aLane.IsDropping() && Other(aLane).IsOpen();
    if (!bUnnoticed)
        Over(m_State == CLOSING ? ORDERLY : RESET);
}

void FlakyLink::Over(EEnd aEnd) {
    if (m_State == OVER)
        return;
    m_State = OVER;
    m_TimerFault.Cancel();
    m_TimerEnd.Cancel();
    for (FlakyLane* pLane : {&m_FromClient, &m_FromTarget})
        aEnd == RESET ? pLane->Reset() : pLane->Close();
    m_Owner.OnLinkOver(*this);
}

}  // namespace tool
