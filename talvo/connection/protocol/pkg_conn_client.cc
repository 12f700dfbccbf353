#include "talvo/connection/protocol/pkg_conn_client.h"

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"

namespace {

CCmLiveCounter s_Live("CPkgConnClient");

const CCmTimeValue HANDSHAKE_TIMEOUT(60);
const CCmTimeValue FIRST_RETRANSMIT(0, 200000);
const CCmTimeValue RETRANSMIT(1);
const CCmTimeValue QUICK_RETRANSMIT(0, 500000);  // after the third and the fourth
constexpr DWORD MAX_RETRANSMITS = 7;

}  // namespace

CPkgConnClient::CPkgConnClient() : CPkgConn(INSTANCE_CLIENT) {
    ++s_Live;
    m_LimitResult = m_Liveness.StartLimit(this, HANDSHAKE_TIMEOUT);
}

CPkgConnClient::~CPkgConnClient() { --s_Live; }

// The transport is still held: data that it delivers is dropped.
void CPkgConnClient::CancelConnect() {
    m_bCancelled = TRUE;
    m_pOwner = nullptr;
    CancelTimers_i();
    SendDisconn(CM_OK);  // over datagrams the server gets no other notification
    DisconnectTransport_i(CM_OK);
}

void CPkgConnClient::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    m_Est.EnsureSingleThread();
    if (m_bCancelled) {
        CM_INFO_TRACE_THIS("CPkgConnClient::OnConnectIndication(), connection has been cancelled.");
        if (aTrpt)
            aTrpt->Disconnect(CM_OK);
        return;
    }
    TakeTransport_i(aTrpt);
    CM_INFO_TRACE_THIS("CPkgConnClient::OnConnectIndication(), m_pITransport ="
                       << static_cast<void*>(GetTPTransport()) << " aTrpt =" << static_cast<void*>(aTrpt)
                       << " m_cBaseType=" << m_cBaseType << " times =" << GetAge_i());
    if (aReason == CM_OK && !aTrpt)
        aReason = CM_ERROR_UNEXPECTED;
    if (aReason == CM_OK)
        aReason = m_LimitResult;
    if (aReason == CM_OK) {
        SetCurrStatus(CS_STATUS_HANDSHAKE);
        aReason = aTrpt->OpenWithSink(this);
    }
    if (aReason != CM_OK) {
        Lost_i(aReason);
        return;
    }
    CmResult rv = SendConnReq();
    if (m_bDatagrams)
        rv = m_RetransmitTimer.Schedule(this, FIRST_RETRANSMIT, 1);
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        Lost_i(rv);
}

void CPkgConnClient::OnDisconnect(CmResult aReason, ICmTransport* aTrpt) {
    m_Est.EnsureSingleThread();
    CM_INFO_TRACE_THIS("CPkgConnClient::OnDisconnect(), aReason =" << aReason << ", aTrptId =" << static_cast<void*>(aTrpt));
    Lost_i(aReason);
}

void CPkgConnClient::OnTimer(CCmTimerWrapperID* aId) {
    m_Est.EnsureSingleThread();
    if (aId == &m_RetransmitTimer)
        OnRetransmitTimer_i();
    else if (m_wStatus != CS_STATUS_CONNECTED)
        OnHandshakeTimeout_i();
    else
        LookAtPeer_i("CPkgConnClient::OnTimer()");
}

void CPkgConnClient::CancelTimers_i() {
    CPkgConn::CancelTimers_i();
    m_RetransmitTimer.Cancel();
}

void CPkgConnClient::OnRetransmitTimer_i() {
    ++m_dwRetransmits;
    if (m_dwRetransmits >= MAX_RETRANSMITS || m_wStatus != CS_STATUS_HANDSHAKE)
        return;
    const BOOL bQuick = m_dwRetransmits == 3 || m_dwRetransmits == 4;
    if (const CmResult rv = m_RetransmitTimer.Schedule(this, bQuick ? QUICK_RETRANSMIT : RETRANSMIT, 1);
        rv == CM_ERROR_OUT_OF_MEMORY)
        Lost_i(rv);
    else
        SendConnReq();
}

void CPkgConnClient::OnHandshakeTimeout_i() {
    CM_WARNING_TRACE_THIS("CPkgConnClient::OnTimer(), haven't recv ConnResp PDU. m_cBaseType=" << m_cBaseType
                                                                                               << " m_wStatus=" << m_wStatus);
    NoteFailure_i(CM_FAILURE_SILENCE, "the peer has not answered the connect request");
    End_i(CM_ERROR_NETWORK_CONNECT_ERROR);
    Indicate_i(CM_ERROR_NETWORK_CONNECT_ERROR);
}

void CPkgConnClient::OnRecvConnResp() {
    if (m_bCancelled) {
        CM_INFO_TRACE_THIS("CPkgConnClient::OnRecvConnResp(), connection has been cancelled.");
        CancelTimers_i();
        TakeConnectPdu_i();
        DisconnectTransport_i(CM_OK);
        return;
    }
    const CCsPduConnReqResp pdu = TakeConnectPdu_i();
    if (m_bRespReceived) {
        CM_INFO_TRACE_THIS("CPkgConnClient::OnRecvConnResp(), Already received RESP PDU");
        return;
    }
    m_bRespReceived = TRUE;
    CancelTimers_i();
    if (pdu.GetConnType() != m_byConnType) {
        CM_WARNING_TRACE_THIS("CPkgConnClient::OnRecvConnResp(), Wrong connection type");
        NoteFailure_i(CM_FAILURE_PROTOCOL, "the peer has answered as another connection type");
        Disconnect(CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE);
        Indicate_i(CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE);
        return;
    }
    SetChannel(pdu.GetConTag());
    CM_INFO_TRACE_THIS("CPkgConnClient::OnRecvConnResp(), wChannel =" << GetChannel() << " times =" << GetAge_i());
    OnConnected_i();
}

void CPkgConnClient::OnConnected_i() {
    SetCurrStatus(CS_STATUS_CONNECTED);
    Indicate_i(CM_OK);
    m_dwConnReq = 0;
    if (m_wStatus != CS_STATUS_CONNECTED)
        return;
    if (const CmResult rv = ScheduleKeepAlive_i(); rv != CM_OK)
        Lost_i(rv);
}
