#include "talvo/connection/protocol/pkg_conn_server.h"

#include <atomic>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"

namespace {

CCmLiveCounter s_Live("CPkgConnServer");
std::atomic<DWORD> s_dwConnectNum{0};  // connect requests that all servers of the process have received

const CCmTimeValue HANDSHAKE_TIMEOUT(60);

}  // namespace

CPkgConnServer::CPkgConnServer() : CPkgConn(INSTANCE_SERVER) { ++s_Live; }

CPkgConnServer::~CPkgConnServer() { --s_Live; }

void CPkgConnServer::CancelConnect() {
    m_pOwner = nullptr;
    End_i(CM_OK);
}

void CPkgConnServer::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    m_Est.EnsureSingleThread();
    CM_INFO_TRACE_THIS("CPkgConnServer::OnConnectIndication aReason =" << aReason);
    const CmResult rv = m_Liveness.StartLimit(this, HANDSHAKE_TIMEOUT);
    TakeTransport_i(aTrpt);
    SetCurrStatus(CS_STATUS_HANDSHAKE);
    if (rv == CM_ERROR_OUT_OF_MEMORY || (aTrpt && aTrpt->OpenWithSink(this) != CM_OK))
        Lost_i(CM_ERROR_NETWORK_SOCKET_ERROR);
}

void CPkgConnServer::OnRecvConnReq() {
    const CCsPduConnReqResp pdu = TakeConnectPdu_i();
    const int nType = pdu.GetConnType();
    const DWORD dwConnectNum = ++s_dwConnectNum;
    CM_INFO_TRACE_THIS("CPkgConnServer::OnRecvConnReq(),  type=" << nType << ",m_byConnType=" << static_cast<int>(m_byConnType)
                                                                 << ", m_wStatus=" << m_wStatus
                                                                 << ", ConnectNum=" << dwConnectNum);
    if (nType != m_byConnType) {
        CM_WARNING_TRACE_THIS("CPkgConnServer::OnRecvConnReq(), Wrong Connection type=" << nType << ",m_byConnType="
                                                                                        << static_cast<int>(m_byConnType));
        SendConnResp();
        RefuseType_i();
        return;
    }
    switch (m_wStatus) {
    case CS_STATUS_HANDSHAKE:
        CM_INFO_TRACE_THIS(
            "CPkgConnServer::OnRecvConnReq(), New connection coming byConnType=" << nType << " m_cBaseType=" << m_cBaseType);
        Accept_i();
        return;
    case CS_STATUS_CONNECTED:
        SendConnResp();
        return;
    default:
        CM_ERROR_TRACE_THIS("CPkgConnServer::OnRecvConnReq, WRONG status, m_wStatus=" << m_wStatus);
    }
}

// The sink may have ended it inside the indication.
void CPkgConnServer::Accept_i() {
    Indicate_i(CM_OK);
    if (m_wStatus != CS_STATUS_HANDSHAKE)
        return;
    CmResult rv = SendConnResp();
    SetCurrStatus(CS_STATUS_CONNECTED);
    m_Liveness.Stop();  // the limit of the handshake
    if (m_bNeedKeepAlive && rv != CM_ERROR_OUT_OF_MEMORY)
        rv = ScheduleKeepAlive_i();
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        Lost_i(rv);
    else
        StartData_i();
}

// Data that a sink sent inside its indication must be delivered, and the peer takes no data before the response.
CmResult CPkgConnServer::Disconnect(CmResult aReason) {
    m_Est.EnsureSingleThread();
    if (aReason == CM_OK && m_wStatus == CS_STATUS_HANDSHAKE && HasUnsentData_i() && SendConnResp() != CM_ERROR_OUT_OF_MEMORY)
        SetCurrStatus(CS_STATUS_CONNECTED);
    return CPkgConn::Disconnect(aReason);
}

// A second request, of another type, ends a connection whose sink must be notified.
void CPkgConnServer::RefuseType_i() {
    ICmTransportSink* pSink = m_pSink;
    Disconnect(CM_ERROR_NOT_AVAILABLE);
    if (pSink)
        pSink->OnDisconnect(CM_ERROR_NOT_AVAILABLE, this);
    else
        Indicate_i(CM_ERROR_NOT_AVAILABLE);
}

void CPkgConnServer::OnTimer(CCmTimerWrapperID*) {
    m_Est.EnsureSingleThread();
    if (m_wStatus == CS_STATUS_HANDSHAKE)
        OnHandshakeTimeout_i();
    else
        LookAtPeer_i("CPkgConnServer::OnTimer()");
}

void CPkgConnServer::OnHandshakeTimeout_i() {
    CM_WARNING_TRACE_THIS("CPkgConnServer::OnTimer, m_ReleaseTimer, ref=" << GetReference());
    Lost_i(CM_ERROR_NETWORK_CONNECT_TIMEOUT);
}

void CPkgConnServer::OnDisconnect(CmResult aReason, ICmTransport* aTrpt) {
    m_Est.EnsureSingleThread();
    CM_INFO_TRACE_THIS("CPkgConnServer::OnDisconnect(), aReason =" << aReason << ", aTrptId =" << static_cast<void*>(aTrpt));
    Lost_i(aReason);
}
