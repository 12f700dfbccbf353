#include "talvo/testing/sim_reliable_peer.h"

#include <utility>

#include "talvo/connection/protocol/connection_options.h"

namespace {

constexpr DWORD MAX_PDU = 4 << 10;
const CCmTimeValue PERIOD(3);

}  // namespace

void CCmSimReliablePeer::Start(BOOL aMayEnd, DWORD aReconnectTime, BOOL aSmall) {
    m_bMayEnd = aMayEnd;
    *m_pWild = TRUE;
    Open();
    ICmReconnectSink* pSink = this;
    m_dwMaxBuffer = !aSmall && Chance_i(50) ? 1 << 20 : MAX_PDU + Below_i(MAX_SMALL_BUFFER - MAX_PDU);
    DWORD dwKeepAlive = 1 + Below_i(15);
    for (auto [dwOption, pValue] : {std::pair<DWORD, void*>{CM_OPT_TRANSPORT_RECONNECT_SINK, &pSink},
                                    {CS_OPT_RECONNECT_TIME, &aReconnectTime},
                                    {CS_OPT_KEEPALIVE_INTERVAL, &dwKeepAlive},
                                    {CS_OPT_MAX_BUFF_LEN, &m_dwMaxBuffer}}) {
        if (GetTransport()->SetOption(dwOption, pValue) != CM_OK)
            Fail("option " + std::to_string(dwOption));
    }
    ActInside_i(50);
    ActLater_i();
}

void CCmSimReliablePeer::Calm() {
    *m_pWild = FALSE;
    Pause_i(FALSE);
}

void CCmSimReliablePeer::ActLater_i() {
    GetNetwork().After(GetNetwork().RandomTime(PERIOD), [this, pWild = m_pWild] {
        if (!*pWild || !IsOpen())
            return;
        Act_i();
        ActLater_i();
    });
}

void CCmSimReliablePeer::ActInside_i(DWORD aPercent) {
    if (*m_pWild && Chance_i(aPercent))
        Act_i();
}

void CCmSimReliablePeer::Act_i() {
    if (m_nDepth > 2 || !IsOpen())
        return;
    ++m_nDepth;
    const DWORD dwAct = Below_i(1000);
    if (dwAct < 100)
        Pause_i(!m_bPaused);
    else if (dwAct < 105 && m_bMayEnd)
        Chance_i(50) ? Release() : End(Chance_i(50) ? CM_OK : CM_ERROR_NETWORK_SOCKET_CLOSE);
    else if (BOOL bCork = Chance_i(30); dwAct < 900) {
        GetTransport()->SetOption(CM_OPT_TRANSPORT_CORK, &bCork);
        for (DWORD i = Below_i(Chance_i(5) ? 200 : 10); i > 0 && IsOpen(); --i)
            Send(Below_i(Chance_i(5) ? MAX_PDU - 100 : 300));
        bCork = FALSE;
        if (IsOpen())
            GetTransport()->SetOption(CM_OPT_TRANSPORT_CORK, &bCork);
    }
    --m_nDepth;
}

void CCmSimReliablePeer::Pause_i(BOOL aPause) {
    m_bPaused = aPause;
    m_tvQuiet = GetNetwork().Now();
    if (IsOpen() && GetTransport()->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPause) != CM_OK)
        Fail("a pause is refused");
}

void CCmSimReliablePeer::CheckStep() {
    DWORD dwKept = 0;
    if (!IsOpen())
        return;
    GetTransport()->GetOption(CM_OPT_TRANSPORT_UNACKNOWLEDGED, &dwKept);
    if (dwKept > m_dwMaxBuffer)
        Fail(std::to_string(dwKept) + " bytes are kept");
}

void CCmSimReliablePeer::CheckSettled(BOOL aMustBeOpen) {
    if (!IsOpen()) {
        if (aMustBeOpen)
            Fail("ended with " + std::to_string(m_Reason));
        return;
    }
    if (m_bSuspended)
        Fail("is still suspended");
    if (GetIncoming().IsMissing())
        Fail("messages are owed");
    if (IsOwedSend())
        Fail("OnSend is owed");
}

void CCmSimReliablePeer::OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) {
    if (m_bSuspended)
        Fail("OnReceive while suspended");
    if (m_bPaused && GetNetwork().Now() > m_tvQuiet)
        Fail("OnReceive while reading is paused");
    CCmSimPeer::OnReceive(aData, aTrptId, aPara);
    ActInside_i(10);
}

void CCmSimReliablePeer::OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) {
    CCmSimPeer::OnSend(aTrptId, aPara);
    ActInside_i(30);
}

void CCmSimReliablePeer::OnDisconnect(CmResult aReason, ICmTransport* aTrptId) {
    CCmSimPeer::OnDisconnect(aReason, aTrptId);
    Note("ends with " + std::to_string(aReason));
    m_Reason = aReason;
    if (Chance_i(50))
        Release();
}

void CCmSimReliablePeer::OnSuspended(ICmTransport*, CmResult aReason) {
    Note("is suspended " + std::to_string(aReason));
    if (std::exchange(m_bSuspended, TRUE) || !IsOpen())
        Fail("OnSuspended twice or after the end");
    ActInside_i(30);
}

void CCmSimReliablePeer::OnResumed(ICmTransport*, DWORD) {
    Note("is resumed");
    if (!std::exchange(m_bSuspended, FALSE) || !IsOpen())
        Fail("OnResumed twice or after the end");
    m_tvQuiet = GetNetwork().Now();
    ActInside_i(30);
}
