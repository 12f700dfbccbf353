#include "talvo/transport/drained_transport.h"

namespace talvo {

CmResult CDrainedTransport::SetLayered_i(BOOL aLayered) {
    m_bLayered = aLayered;
    if (aLayered)
        LeaveThread();
    return CM_OK;
}

void CDrainedTransport::Opened_i() {
    if (!m_bLayered)
        JoinCurrentThread();
}

void CDrainedTransport::NoteLost_i() {
    DWORD dwInFlight = 0;
    m_dwLost = GetOption(CM_OPT_TRANSPORT_UNACKNOWLEDGED, &dwInFlight) == CM_OK ? dwInFlight : 0;
}

void CDrainedTransport::OnDrain(ECmDrainStage aStage) {
    const BOOL bCut = aStage == ECmDrainStage::CUT;
    ICmTransportSink* pSink = m_pSink;
    if (!pSink || !ends_connections(aStage))
        return;
    EndInOrder_i(bCut);
    LeaveThread();
    pSink->OnDisconnect(CM_ERROR_NETWORK_SOCKET_CLOSE, this);  // last: the sink may release this transport
}

void CDrainedTransport::AddUndrained(CCmUndrained& aLeft) {
    DWORD dwBytes = 0;
    if (!m_pSink)
        return;
    ++aLeft.m_dwConnections;
    if (GetOption(CM_OPT_TRANSPORT_UNACKNOWLEDGED, &dwBytes) == CM_OK)
        aLeft.m_ullBytes += dwBytes;
}

}  // namespace talvo
