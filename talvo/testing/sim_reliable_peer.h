// A peer of reliable connections that acts at random.
#pragma once

#include <memory>

#include "talvo/testing/sim_peer.h"
#include "talvo/transport/reconnect_sink.h"

// Sends at random, also inside its upcalls, pauses reading, and checks the promises of a reliable connection to its sinks over
// any number of gaps: suspensions and resumptions alternate, none comes after the end, a pause of reading outlasts them, and
// the bytes kept stay within the send buffer. All chances are the network's. Do not call CCmSimPeer::CheckStep: there may be no
// link below.
class CCmSimReliablePeer final : public CCmSimPeer, public ICmReconnectSink {
public:
    using CCmSimPeer::CCmSimPeer;
    ~CCmSimReliablePeer() override { *m_pWild = CM_FALSE; }

    // Of a small send buffer, bytes.
    static constexpr CmDword MAX_SMALL_BUFFER = 8 << 10;

    // aMayEnd: it ends the connection one day, perhaps. aReconnectTime: seconds. aSmall: a small send buffer; otherwise it may
    // be of any size.
    void Start(CmBool aMayEnd, CmDword aReconnectTime, CmBool aSmall = CM_FALSE);
    // Sends no more, and reads what was held back.
    void Calm();

    void CheckStep();  // call it in ICmSimObserver::OnStep
    // The connection has been up or over for long enough.
    void CheckSettled(CmBool aMustBeOpen);
    CmBool IsSuspended() const { return m_bSuspended && IsOpen(); }  // in a gap
    CmResult GetReason() const { return m_Reason; }                  // of OnDisconnect

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnSuspended(ICmTransport* aTrptId, CmResult aReason) override;
    void OnResumed(ICmTransport* aTrptId, CmDword aMilliseconds) override;

private:
    CmDword Below_i(uint64_t aBound) { return static_cast<CmDword>(GetNetwork().Random(aBound)); }
    CmBool Chance_i(CmDword aPercent) { return Below_i(100) < aPercent; }
    void ActLater_i();
    void Act_i();
    void ActInside_i(CmDword aPercent);
    void Pause_i(CmBool aPause);

    const std::shared_ptr<CmBool> m_pWild = std::make_shared<CmBool>(CM_FALSE);  // shared with what was scheduled
    CmBool m_bMayEnd = CM_FALSE;
    CmBool m_bPaused = CM_FALSE;
    CmBool m_bSuspended = CM_FALSE;
    CCmTimeValue m_tvQuiet;  // the last pause or resumption; only messages of the same read come behind it while it pauses
    CmDword m_dwMaxBuffer = 1 << 20;
    int m_nDepth = 0;
    CmResult m_Reason = CM_OK;
};
