// A connection through `talvo flaky`: that of a client, and its own to the target.
#pragma once

#include "tools/arguments.h"
#include "tools/console.h"
#include "tools/flaky_lane.h"

namespace tool {

class FlakyLink;

class FlakyLinkOwner {
public:
    // One more fault is made, except if false: there were enough.
    virtual bool TakeFault() = 0;
    virtual void OnBytes(DWORD aBytes) = 0;
    // The link is over. Delete it later, not inside this call.
    virtual void OnLinkOver(FlakyLink& aLink) = 0;

protected:
    virtual ~FlakyLinkOwner() = default;
};

// Forwards both ways, and makes faults unless the plan makes them for all links together. After a stall it goes on; a halved
// link, which forwards one way only, stays so until an end closes. Network thread. The arguments outlive it.
class FlakyLink : private FlakyLaneOwner, private ICmAcceptorConnectorSink, private CCmTimerWrapperIDSink {
public:
    FlakyLink(const Arguments& aArguments, DWORD aNumber, FlakyLinkOwner& aOwner, Console& aConsole);
    ~FlakyLink() override;
    FlakyLink(const FlakyLink&) = delete;
    FlakyLink& operator=(const FlakyLink&) = delete;

    void Start(ICmTransport* aClient);
    // aFault: a name of the plan's.
    void Strike(const std::string& aFault);

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;
    DWORD GetBudget() const override { return m_dwBudget; }
    void OnForwarded(DWORD aBytes) override;
    void OnLaneEnd(FlakyLane& aLane) override;
    void OnLaneBroken(FlakyLane& aLane) override;

    FlakyLane& Other(FlakyLane& aLane) { return &aLane == &m_FromClient ? m_FromTarget : m_FromClient; }
    void PlanFault();
    void MakeFault();
    void CloseSlowly();
    enum EEnd { ORDERLY, RESET };
    void Over(EEnd aEnd);

    const Arguments& m_Arguments;
    const FlakyPlan& m_Plan;
    const DWORD m_dwNumber;
    FlakyLinkOwner& m_Owner;
    Console& m_Console;
    FlakyDice m_Dice;
    FlakyLane m_FromClient;
    FlakyLane m_FromTarget;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmTimerWrapperID m_TimerFault;
    CCmTimerWrapperID m_TimerEnd;  // of a stall or a close
    enum { OPEN, STALLED, HALVED, CLOSING, OVER } m_State = OPEN;
    int m_nEnds = 0;  // lanes whose end was passed on
    DWORD m_dwBudget = MOST_BYTES;
    uint64_t m_ullBytes = 0;

    static constexpr DWORD MOST_BYTES = 0xFFFFFFFF;
};

}  // namespace tool
