#include "talvo/transport/race_run.h"

#include <algorithm>

#include "talvo/base/clock.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/connect_options.h"
#include "talvo/transport/connection_type.h"
#include "talvo/transport/race_options.h"

namespace talvo {

namespace {

constexpr int64_t NEVER = INT64_MAX;

BOOL Runs(const CCmRefPtrT<ICmConnector>& aConnector) { return static_cast<bool>(aConnector); }

}  // namespace

void CRaceRun::Start(ICmReactor* aReactor, const CRacePlan& aPlan, const CCmTimeValue* aTimeout, const CCmInetAddr* aAddrPeer,
                     const CCmInetAddr* aAddrLocal) {
    m_pReactor = aReactor;
    m_bRunning = TRUE;
    m_stNext = 0;
    m_Failure = {};
    m_dwWinnerType = 0;
    m_Attempts.clear();
    const CCmInetAddr& addrPeer = aAddrPeer ? *aAddrPeer : CCmInetAddr::s_InetAddrAny;
    if (!WithMemory([&] { Copy_i(aPlan, aTimeout, aAddrPeer, aAddrLocal); })) {
        m_Attempts.clear();
        EndLater_i(CM_ERROR_OUT_OF_MEMORY, CCmFailure(CM_FAILURE_LOCAL, "out of memory", "connect to", addrPeer));
    } else if (m_Attempts.empty()) {
        CM_WARNING_TRACE_THIS("CCmDetectionConnector::StartDetectionConnect, there is no connection.");
        EndLater_i(CM_ERROR_NETWORK_CONNECT_TIMEOUT,
                   CCmFailure(CM_FAILURE_LOCAL, "the race has no connection", "connect to", addrPeer));
    } else {
        GoOn_i();
    }
}

// May throw std::bad_alloc.
void CRaceRun::Copy_i(const CRacePlan& aPlan, const CCmTimeValue* aTimeout, const CCmInetAddr* aAddrPeer,
                      const CCmInetAddr* aAddrLocal) {
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    m_Timeout.reset();
    m_AddrLocal.reset();
    if (aTimeout)
        m_Timeout = *aTimeout;
    if (aAddrLocal)
        m_AddrLocal = *aAddrLocal;
    m_llDeadlineUsec = aTimeout ? llNow + aTimeout->GetTotalInUsec() : NEVER;
    for (const CRacePlan::CConnection& connection : aPlan.GetConnections()) {
        m_Attempts.push_back({connection});
        if (aAddrPeer)
            m_Attempts.back().m_Plan.m_AddrPeer = *aAddrPeer;
    }
    if (!m_Attempts.empty())
        m_llNextUsec = llNow + m_Attempts[0].m_Plan.m_llDelayUsec;
}

// Starts the due connections.
void CRaceRun::GoOn_i() {
    while (IsNextDue_i())
        StartNext_i();
    if (m_stNext < m_Attempts.size() || std::ranges::any_of(m_Attempts, Runs, &CAttempt::m_pConnector))
        ArmTimer_i();
    else
        EndLater_i(m_Attempts[0].m_Reason, m_Attempts[0].m_Failure);
}

BOOL CRaceRun::IsNextDue_i() const {
    if (m_stNext == m_Attempts.size())
        return FALSE;
    const BOOL bAllFailed = m_stNext > 0 && std::ranges::none_of(m_Attempts, Runs, &CAttempt::m_pConnector);
    return bAllFailed || CCmClock::GetTimeOfDayUsec() >= m_llNextUsec;
}

void CRaceRun::StartNext_i() {
    CAttempt& attempt = m_Attempts[m_stNext++];
    if (m_stNext < m_Attempts.size())
        m_llNextUsec = CCmClock::GetTimeOfDayUsec() + m_Attempts[m_stNext].m_Plan.m_llDelayUsec;
    const CmResult rv = Prepare_i(attempt);
    if (rv != CM_OK) {
        attempt.m_pConnector.Reset();
        Failed_i(attempt, rv, CCmFailure(CM_FAILURE_LOCAL, cm_result_name(rv), "connect to", attempt.m_Plan.m_AddrPeer));
        return;
    }
    // The whole time-out: the timer of the race, which is armed afterwards, fires first.
    attempt.m_pConnector->AsycConnect(this, attempt.m_Plan.m_AddrPeer, m_Timeout ? &*m_Timeout : nullptr,
                                      m_AddrLocal ? &*m_AddrLocal : nullptr);
}

CmResult CRaceRun::Prepare_i(CAttempt& aAttempt) {
    const CmResult rv = m_Factory(aAttempt.m_Plan.m_dwType, aAttempt.m_pConnector.ParaOut());
    if (rv != CM_OK)
        return rv;
    BOOL bNever = TRUE;
    if (HasDirectTwin_i(aAttempt))
        SetConnectOption(aAttempt.m_pConnector.Get(), OPT_CONNECT_NEVER_DIRECT, &bNever);
    COptionValues passed(aAttempt.m_Plan.m_dwType, TRUE);
    return aAttempt.m_Plan.m_Options.PassTo(aAttempt.m_pConnector.Get(), passed);
}

// TRUE: aAttempt is through a proxy, and another one is the same without.
BOOL CRaceRun::HasDirectTwin_i(const CAttempt& aAttempt) const {
    const CConnectionType type(aAttempt.m_Plan.m_dwType);
    return type.IsProxied() && std::ranges::any_of(m_Attempts, [&](const CAttempt& a) {
               return CConnectionType(a.m_Plan.m_dwType).IsDirectTwinOf(type) &&
                      a.m_Plan.m_AddrPeer == aAttempt.m_Plan.m_AddrPeer;
           });
}

void CRaceRun::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) {
    const auto attempt =
        std::ranges::find_if(m_Attempts, [=](const CAttempt& a) { return a.m_pConnector.Get() == aRequestId; });
    if (attempt == m_Attempts.end())
        return;
    if (aReason == CM_OK) {
        Connected_i(static_cast<size_t>(attempt - m_Attempts.begin()), *aTrpt);
        return;
    }
    const CCmRefPtrT<ICmConnector> pConnector = std::move(attempt->m_pConnector);
    Failed_i(*attempt, aReason, GetConnectFailure(aRequestId));
    if (!m_pWinner)
        GoOn_i();
}

// The winner is reported behind the other reports of this turn of the loop, which may bring a connection added earlier. But the
// first message of a protocol connection may follow at once, and would be lost without the user's sink.
void CRaceRun::Connected_i(size_t aNumber, ICmTransport& aTrpt) {
    const CRacePlan::CConnection& plan = m_Attempts[aNumber].m_Plan;
    if (m_pWinner)
        m_pWinner->Disconnect(CM_OK);
    m_pWinner = &aTrpt;
    m_dwWinnerType = plan.m_dwType;
    CM_INFO_TRACE_THIS("CCmDetectionConnector::OnConnectIndication, connected. number="
                       << aNumber << " type=" << plan.m_dwType << " addr=" << plan.m_AddrPeer.GetIpDisplayName()
                       << " port=" << plan.m_AddrPeer.GetPort());
    CancelFrom_i(aNumber);
    if (CConnectionType(plan.m_dwType).IsProtocol())
        End_i(CM_OK);
    else
        EndLater_i(CM_OK, {});
}

void CRaceRun::Failed_i(CAttempt& aAttempt, CmResult aReason, const CCmFailure& aFailure) {
    aAttempt.m_Reason = aReason;
    aAttempt.m_Failure = aFailure;
    CM_WARNING_TRACE_THIS("CCmDetectionConnector::OnConnectIndication, connection failed. number="
                          << &aAttempt - m_Attempts.data() << " type=" << aAttempt.m_Plan.m_dwType << " reason=" << aReason
                          << " why=" << aFailure.ToString());
}

void CRaceRun::OnTimeout(const CCmTimeValue&, void*) {
    if (CCmClock::GetTimeOfDayUsec() < m_llDeadlineUsec) {
        GoOn_i();
        return;
    }
    CM_INFO_TRACE_THIS("CCmDetectionConnector::OnTimeout, connect timeout.");
    m_Failure = CCmFailure(CM_FAILURE_TIMEOUT, "the time-out of the attempt has passed", "connect to", GetFirstPeer());
    End_i(CM_ERROR_NETWORK_CONNECT_ERROR);
}

void CRaceRun::ArmTimer_i() {
    const int64_t llNext = m_stNext < m_Attempts.size() ? m_llNextUsec : NEVER;
    const int64_t llAt = std::min(llNext, m_llDeadlineUsec);
    m_pReactor->CancelTimer(this);
    if (llAt == NEVER)
        return;
    const CCmTimeValue tvWait = CCmTimeValue::FromUsec(std::max<int64_t>(llAt - CCmClock::GetTimeOfDayUsec(), 0));
    const CmResult rv = m_pReactor->ScheduleTimer(this, nullptr, tvWait, 1);
    if (rv == CM_OK || rv == CM_ERROR_FOUND)
        return;
    CancelFrom_i(0);
    EndLater_i(CM_ERROR_OUT_OF_MEMORY,
               CCmFailure(CM_FAILURE_LOCAL, "there is no timer for the race", "connect to", GetFirstPeer()));
}

void CRaceRun::CancelFrom_i(size_t aNumber) {
    for (size_t i = aNumber; i < m_Attempts.size(); ++i) {
        if (const CCmRefPtrT<ICmConnector> pConnector = std::move(m_Attempts[i].m_pConnector))
            pConnector->CancelConnect();
    }
}

// Behind the reports of this turn of the loop, and never from inside Start. No further connection starts.
void CRaceRun::EndLater_i(CmResult aReason, const CCmFailure& aFailure) {
    m_pReactor->CancelTimer(this);
    m_LaterReason = aReason;
    m_Failure = aFailure;
    m_Later.Arm();
}

void CRaceRun::End_i(CmResult aReason) {
    const CCmRefPtrT<ICmTransport> pWinner = std::move(m_pWinner);
    Stop();
    m_User.OnRaceOver(aReason, pWinner.Get());  // last: the user may release this race
}

void CRaceRun::Stop() {
    if (!m_bRunning)
        return;
    m_bRunning = FALSE;
    m_Later.Cancel();
    m_pReactor->CancelTimer(this);
    CancelFrom_i(0);
    if (const CCmRefPtrT<ICmTransport> pWinner = std::move(m_pWinner))
        pWinner->Disconnect(CM_OK);
}

}  // namespace talvo
