// A peer that acts at random.
#pragma once

#include "talvo/testing/sim_peer.h"

// Does everything that a sink may do: sends single messages and bursts, corked or not, pauses reading, changes the options of
// the connection, disconnects and releases the transport. It acts from time to time, and inside its upcalls. All chances are
// the network's.
class CCmSimWildPeer : public CCmSimPeer {
public:
    using CCmSimPeer::CCmSimPeer;
    ~CCmSimWildPeer() override { *m_pWild = CM_FALSE; }

    // Opens the transport and begins to act.
    void Begin();
    // Acts no more, and reads what was held back.
    void Calm();

    CmBool IsPaused() const { return m_bPaused; }  // it has paused reading
    // A limit was set that is so small that it may end the connection, with any reason.
    CmBool IsOdd() const { return m_bOdd; }

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

protected:
    // An option of the transport has been set.
    virtual void OnOptionSet(CmDword /*aOption*/, CmDword /*aValue*/) {}

private:
    CmDword Below_i(uint64_t aBound) { return static_cast<CmDword>(GetNetwork().Random(aBound)); }
    CmBool Chance_i(CmDword aPercent) { return Below_i(100) < aPercent; }
    void ActLater_i();
    void ActInside_i(CmDword aPercent);
    void Act_i();
    void SendMaybe_i(CmDword aLength);
    void SendMany_i();
    void Set_i(CmDword aOption, CmDword aValue);
    void ChangeLimit_i();
    void EndNow_i();

    const std::shared_ptr<CmBool> m_pWild = std::make_shared<CmBool>(CM_FALSE);  // shared with what was scheduled
    CmBool m_bPaused = CM_FALSE;
    CmBool m_bOdd = CM_FALSE;
    int m_nDepth = 0;  // of acts inside acts
};
