#include "talvo/testing/sim_wild_peer.h"

#include <algorithm>

#include "talvo/connection/protocol/connection_options.h"

namespace {

constexpr DWORD MIN_MESSAGE = 4;  // a datagram holds its number
constexpr DWORD MIN_BUFFER = 5;   // a keep-alive
constexpr int MAX_DEPTH = 3;
const CCmTimeValue PERIOD(2);

}  // namespace

void CCmSimWildPeer::Begin() {
    *m_pWild = TRUE;
    Open();
    ActInside_i(30);
    ActLater_i();
}

void CCmSimWildPeer::Calm() {
    *m_pWild = FALSE;
    if (m_bPaused)
        Set_i(CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
}

void CCmSimWildPeer::ActLater_i() {
    GetNetwork().After(GetNetwork().RandomTime(PERIOD), [this, pWild = m_pWild] {
        if (!*pWild || !IsOpen())
            return;
        Act_i();
        ActLater_i();
    });
}

void CCmSimWildPeer::ActInside_i(DWORD aPercent) {
    if (!*m_pWild || !Chance_i(aPercent))
        return;
    for (DWORD i = 1 + Below_i(3); i > 0; --i)
        Act_i();
}

void CCmSimWildPeer::Act_i() {
    if (m_nDepth >= MAX_DEPTH)
        return;
    ++m_nDepth;
    const DWORD dwAct = Below_i(100);
    if (dwAct < 40)
        SendMaybe_i(Below_i(Chance_i(10) ? 70000 : 2000));
    else if (dwAct < 75)
        SendMany_i();
    else if (dwAct < 84)
        Set_i(CM_OPT_TRANSPORT_PAUSE_READING, !m_bPaused);
    else if (dwAct < 95)
        ChangeLimit_i();
    else if (dwAct < 98)
        EndNow_i();
    --m_nDepth;
}

// After a refused send a sink waits for OnSend, or not.
void CCmSimWildPeer::SendMaybe_i(DWORD aLength) {
    if (IsOpen() && (!IsOwedSend() || Chance_i(20)))
        Send(std::max(aLength, IsDatagrams() ? MIN_MESSAGE : 0));
}

void CCmSimWildPeer::SendMany_i() {
    const BOOL bCork = Chance_i(60);
    if (bCork)
        Set_i(CM_OPT_TRANSPORT_CORK, TRUE);
    for (DWORD i = Below_i(100); i > 0 && IsOpen() && !IsOwedSend(); --i)
        SendMaybe_i(Below_i(Chance_i(5) ? 5000 : 200));
    if (bCork)
        Set_i(CM_OPT_TRANSPORT_CORK, FALSE);
}

void CCmSimWildPeer::Set_i(DWORD aOption, DWORD aValue) {
    if (!IsOpen())
        return;
    Note("sets option " + std::to_string(aOption) + " to " + std::to_string(aValue));
    if (GetTransport()->SetOption(aOption, &aValue) != CM_OK)
        return;
    if (aOption == CM_OPT_TRANSPORT_PAUSE_READING)
        m_bPaused = aValue != 0;
    OnOptionSet(aOption, aValue);
}

void CCmSimWildPeer::ChangeLimit_i() {
    const BOOL bOdd = Chance_i(4);
    m_bOdd = m_bOdd || bOdd;
    switch (Below_i(3)) {
    case 0:
        return Set_i(CS_OPT_MAX_BUFF_LEN, bOdd ? Below_i(10) : MIN_BUFFER + Below_i(200000));
    case 1:
        return Set_i(CS_OPT_MAX_MESSAGE_LEN, bOdd ? Below_i(2000) : 70000 + Below_i(1 << 20));
    default:
        return Set_i(CS_OPT_KEEPALIVE_INTERVAL, Below_i(40));
    }
}

void CCmSimWildPeer::EndNow_i() {
    const CmResult reason = Chance_i(30) ? CM_OK : static_cast<CmResult>(CM_ERROR_NETWORK_CONNECT_ERROR + Below_i(7));
    Chance_i(30) ? Release() : End(reason);
}

void CCmSimWildPeer::OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) {
    CCmSimPeer::OnReceive(aData, aTrptId, aPara);
    ActInside_i(10);
}

void CCmSimWildPeer::OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) {
    CCmSimPeer::OnSend(aTrptId, aPara);
    ActInside_i(40);
}

void CCmSimWildPeer::OnDisconnect(CmResult aReason, ICmTransport* aTrptId) {
    CCmSimPeer::OnDisconnect(aReason, aTrptId);
    ActInside_i(50);
    if (*m_pWild && Chance_i(50))
        Release();
}
