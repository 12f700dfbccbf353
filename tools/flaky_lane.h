// One direction of a connection through `talvo flaky`.
#pragma once

#include <deque>

#include "talvo/talvo.h"

namespace tool {

class FlakyLane;

class FlakyLaneOwner {
public:
    // The most bytes to send before the next call of OnForwarded; not 0.
    virtual DWORD GetBudget() const = 0;
    // Inside each of these calls the owner may close its lanes, but does not delete them.
    virtual void OnForwarded(DWORD aBytes) = 0;
    // The end of the data was passed on.
    virtual void OnLaneEnd(FlakyLane& aLane) = 0;
    // The lane's transport is closed, and not in good order unless the lane drops all data.
    virtual void OnLaneBroken(FlakyLane& aLane) = 0;

protected:
    virtual ~FlakyLaneOwner() = default;
};

// Reads from its transport and sends to that of the opposite lane, after the delay. Keeps the half-close of a stream. If much
// waits here, reading is paused. Network thread.
class FlakyLane : private ICmTransportSink, private CCmTimerWrapperIDSink {
public:
    FlakyLane(FlakyLaneOwner& aOwner, FlakyLane& aOpposite, DWORD aDelayMs)
        : m_Owner(aOwner), m_Opposite(aOpposite), m_llDelayUsec(int64_t{aDelayMs} * 1000) {}
    FlakyLane(const FlakyLane&) = delete;
    FlakyLane& operator=(const FlakyLane&) = delete;

    // The transport is not open yet: its bytes wait in the system.
    void SetTransport(ICmTransport* aTransport) { m_pTransport = aTransport; }
    CmResult Open();
    bool IsOpen() const { return bool{m_pTransport}; }

    // Forwards nothing until it is released; all data stays.
    void Hold(bool aHold);
    // From now on all data and its end are lost.
    void Drop();
    bool IsDropping() const { return m_bDropping; }
    // Ends the data that goes to the transport's peer.
    void EndSending();
    // Upcalls end. In good order, or with a reset.
    void Close();
    void Reset();

private:
    struct Piece {
        int64_t m_llDueUsec;
        CCmChainPtr m_pData;  // null: the end
    };

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport*, CCmTransportParameter*) override { m_Opposite.Pump(); }
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimer(CCmTimerWrapperID*) override { Pump(); }

    void Pump();
    bool IsDue(const Piece& aPiece);
    bool SendFirst();
    void UpdatePause();

    FlakyLaneOwner& m_Owner;
    FlakyLane& m_Opposite;
    const int64_t m_llDelayUsec;
    CCmRefPtrT<ICmTransport> m_pTransport;
    std::deque<Piece> m_Queue;
    size_t m_nQueued = 0;  // bytes
    CCmTimerWrapperID m_Timer;
    bool m_bHeld = false;
    bool m_bDropping = false;
    BOOL m_bPaused = FALSE;
};

}  // namespace tool
