// A race of connectors under way.
#pragma once

#include <optional>

#include "talvo/event/home_reactor.h"
#include "talvo/event/later_report.h"
#include "talvo/transport/race_plan.h"

namespace talvo {

// Starts the connections of a plan in turn and reports the first one that is connected. One race at a time, in the network
// thread. The owner stops it before the owner's end; a queued event may hold it longer.
class TALVO_API CRaceRun final : public CCmReferenceControlT<CCmMutexNullSingleThread>,
                                 private ICmAcceptorConnectorSink,
                                 private ICmTimerHandler {
public:
    class IUser {
    public:
        // The one report of a race, from the loop: CM_OK with the winner's transport, which lives during the call, or a reason.
        // The race has ended; the user may start the next one, or release it.
        virtual void OnRaceOver(CmResult aReason, ICmTransport* aTrpt) = 0;

    protected:
        virtual ~IUser() = default;
    };
    // Makes a connector in the network thread. aConnector (out): with one reference for the caller.
    using Factory = CmResult (*)(DWORD aType, ICmConnector*& aConnector);

    CRaceRun(IUser& aUser, Factory aFactory) : m_User(aUser), m_Factory(aFactory) {}
    ~CRaceRun() override = default;

    // aTimeout, aAddrPeer, aAddrLocal may be null. aAddrPeer: for all connections, instead of the plan's.
    void Start(ICmReactor* aReactor, const CRacePlan& aPlan, const CCmTimeValue* aTimeout, const CCmInetAddr* aAddrPeer,
               const CCmInetAddr* aAddrLocal);
    // Ends all attempts; no report follows.
    void Stop();
    BOOL IsRunning() const { return m_bRunning; }

    // Of the last race: its failure, the address of its first connection, and the connection type of its winner.
    const CCmFailure& GetFailure() const { return m_Failure; }
    const CCmInetAddr& GetFirstPeer() const {
        return m_Attempts.empty() ? CCmInetAddr::s_InetAddrAny : m_Attempts[0].m_Plan.m_AddrPeer;
    }
    DWORD GetWinnerType() const { return m_dwWinnerType; }

private:
    struct CAttempt {
        CRacePlan::CConnection m_Plan;
        CCmRefPtrT<ICmConnector> m_pConnector = {};  // while it runs
        CmResult m_Reason = CM_OK;                   // of its failure
        CCmFailure m_Failure = {};
    };

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;
    void OnLater() { End_i(m_LaterReason); }

    void Copy_i(const CRacePlan& aPlan, const CCmTimeValue* aTimeout, const CCmInetAddr* aAddrPeer,
                const CCmInetAddr* aAddrLocal);
    void GoOn_i();
    BOOL IsNextDue_i() const;
    void StartNext_i();
    CmResult Prepare_i(CAttempt& aAttempt);
    BOOL HasDirectTwin_i(const CAttempt& aAttempt) const;
    void Connected_i(size_t aNumber, ICmTransport& aTrpt);
    void Failed_i(CAttempt& aAttempt, CmResult aReason, const CCmFailure& aFailure);
    void ArmTimer_i();
    void CancelFrom_i(size_t aNumber);
    void EndLater_i(CmResult aReason, const CCmFailure& aFailure);
    void End_i(CmResult aReason);

    IUser& m_User;
    const Factory m_Factory;
    CHomeReactor m_pReactor = nullptr;
    std::vector<CAttempt> m_Attempts;  // in their order
    size_t m_stNext = 0;               // the first attempt not started yet
    int64_t m_llNextUsec = 0;          // when it starts
    std::optional<CCmTimeValue> m_Timeout;
    int64_t m_llDeadlineUsec = 0;
    std::optional<CCmInetAddr> m_AddrLocal;
    CCmRefPtrT<ICmTransport> m_pWinner;  // so far; unopened
    BOOL m_bRunning = FALSE;
    DWORD m_dwWinnerType = 0;
    CCmFailure m_Failure;
    CmResult m_LaterReason = CM_OK;
    CLaterReportT<CRaceRun, &CRaceRun::OnLater> m_Later{*this};
};

}  // namespace talvo
