#include "talvo/connection/protocol/rlb_conn_tcp_client.h"

#include <new>

#include "talvo/base/clock.h"
#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/base_connector.h"
#include "talvo/transport/option_values.h"
#include "talvo/transport/socket_settings.h"

namespace {

CCmLiveCounter s_Live("CRlbConnTCPClient");

const CCmTimeValue OPENING_LIMIT(60);
const CCmTimeValue ATTEMPT_LIMIT(10);

// Null: there is no memory, or the base type is no longer offered, or refuses an option.
CCmRefPtrT<ICmConnector> MakeConnector(const CRlbTarget& aTarget) {
    CCmRefPtrT<ICmConnector> pConnector;
    if (talvo::MakeBaseConnector(aTarget.m_dwBaseType, pConnector) != CM_OK)
        return {};
    CmResult rv = CM_OK;
    const BOOL bMemory = !aTarget.m_pOptions || talvo::WithMemory([&] {
        talvo::COptionValues passed(aTarget.m_dwBaseType, TRUE);
        rv = aTarget.m_pOptions->PassTo(pConnector.Get(), passed);
    });
    return bMemory && rv == CM_OK ? pConnector : nullptr;
}

}  // namespace

CRlbConnTCPClient::CRlbConnTCPClient() : CRlbConn(INSTANCE_CLIENT) {
    ++s_Live;
    m_LimitResult = ArmTimer_i(OPENING_LIMIT) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CRlbConnTCPClient::~CRlbConnTCPClient() { --s_Live; }

void CRlbConnTCPClient::CancelConnect() {
    m_pOwner = nullptr;
    Disconnect(CM_OK);
}

void CRlbConnTCPClient::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    m_Est.EnsureSingleThread();
    CM_INFO_TRACE_THIS("CRlbConnTCPClient::OnConnectIndication(), aReason =" << aReason << " m_wStatus=" << m_wStatus);
    if (aReason == CM_OK && !aTrpt)
        aReason = CM_ERROR_UNEXPECTED;
    if (m_bCancelled || (m_wStatus == CS_STATUS_RECONNECTING && m_Attempt != CONNECTING)) {
        if (aTrpt)
            aTrpt->Disconnect(CM_OK);
    } else if (m_wStatus == CS_STATUS_RECONNECTING) {
        aReason == CM_OK ? Ask_i(*aTrpt) : AttemptFailed_i();
    } else if (aReason == CM_OK && m_LimitResult == CM_OK) {
        SetCurrStatus(CS_STATUS_HANDSHAKE);
        Ask_i(*aTrpt);
    } else {
        Final_i(aReason == CM_OK ? m_LimitResult : aReason);
    }
}

void CRlbConnTCPClient::Ask_i(ICmTransport& aTransport) {
    m_Attempt = ASKING;
    TakeTransport_i(&aTransport);
    CmResult rv = aTransport.OpenWithSink(this);
    if (rv == CM_OK && IsToken_i() && m_wStatus == CS_STATUS_RECONNECTING)
        ++m_dwAttempt;
    if (rv == CM_OK)
        rv = SendConnReq();
    if (rv != CM_OK && rv != CM_ERROR_PARTIAL_DATA && m_pTransport)
        LostWhileOpening_i(rv);
}

void CRlbConnTCPClient::LostWhileOpening_i(CmResult aReason) {
    if (m_wStatus == CS_STATUS_RECONNECTING)
        AttemptFailed_i();
    else
        Final_i(aReason);
}

void CRlbConnTCPClient::Suspended_i(CmResult aReason, DWORD aConnectedMsec) {
    m_Backoff.OnLost(aConnectedMsec);
    WaitForRetry_i();
    TellSuspended_i(aReason);
}

void CRlbConnTCPClient::WaitForRetry_i() {
    m_Attempt = WAITING;
    if (!ArmTimer_i(CCmTimeValue::FromUsec(int64_t{m_Backoff.NextDelay()} * 1000)))
        Final_i(CM_ERROR_OUT_OF_MEMORY);
}

void CRlbConnTCPClient::OnRetryTimer_i() {
    if (m_Attempt == WAITING)
        Connect_i();
    else
        AttemptFailed_i();
}

void CRlbConnTCPClient::Connect_i() {
    m_Attempt = CONNECTING;
    m_pConnector = MakeConnector(m_Target);
    if (!m_pConnector || !ArmTimer_i(ATTEMPT_LIMIT)) {
        AttemptFailed_i();
        return;
    }
    CM_INFO_TRACE_THIS("CRlbConnTCPClient::Connect_i, connects again. wChannel =" << GetChannel());
    CCmInetAddr addrLocal = m_Target.m_AddrLocal;
    m_pConnector->AsycConnect(this, m_Target.m_AddrPeer, nullptr, m_Target.m_bLocal ? &addrLocal : nullptr);
}

// A transport that this end has given up is reset. Otherwise the system could deliver its request later, and the server would
// leave a good transport for it.
void CRlbConnTCPClient::AttemptFailed_i() {
    DropConnector_i();
    if (m_pTransport)
        talvo::ResetAtClose(*m_pTransport);
    DetachTransport_i(CM_ERROR_NETWORK_CONNECT_ERROR);
    WaitForRetry_i();
}

void CRlbConnTCPClient::DropConnector_i() {
    if (const CCmRefPtrT<ICmConnector> pConnector = std::move(m_pConnector))
        pConnector->CancelConnect();
}

void CRlbConnTCPClient::Ending_i(BOOL, CmResult) {
    m_bCancelled = TRUE;
    m_Attempt = NONE;
    DropConnector_i();
}

void CRlbConnTCPClient::OnRecvConnResp() {
    const CCsPduConnToken pdu = TakeRequestOrResponse_i();
    if (m_wStatus == CS_STATUS_CONNECTED)
        ViolatedBy_i("the peer has answered twice");
    else if (m_wStatus == CS_STATUS_RECONNECTING)
        OnReopenResponse_i(pdu);
    else
        OnFirstResponse_i(pdu);
}

void CRlbConnTCPClient::OnFirstResponse_i(const CCsPduConnToken& aPdu) {
    if (aPdu.GetConnType() != m_byConnType || aPdu.GetConTag() == 0 || aPdu.GetACK() != 0) {
        RefuseResponse_i("the peer's connect response does not fit");
        return;
    }
    SetChannel(aPdu.GetConTag());
    m_Token = aPdu.m_Token;
    m_Attempt = NONE;
    m_dwConnReq = 0;
    CancelTimers_i();
    if (const CmResult rv = StartConnected_i(); rv != CM_OK) {
        Final_i(rv);
        return;
    }
    SetCurrStatus(CS_STATUS_CONNECTED);
    Indicate_i(CM_OK);
}

void CRlbConnTCPClient::OnReopenResponse_i(const CCsPduConnToken& aPdu) {
    const BOOL bMine = aPdu.GetConnType() == m_byConnType && aPdu.GetConTag() == m_wChannel && aPdu.m_Token == m_Token &&
                       aPdu.m_dwAttempt == m_dwAttempt;
    if (!bMine || !m_Buffered->GetSendBuf().IsResumePoint(aPdu.GetACK())) {
        RefuseResponse_i("the peer's answer to the reconnection does not fit");
        return;
    }
    m_Attempt = NONE;
    DropConnector_i();
    CancelTimers_i();
    Continue_i(aPdu.GetACK());
    StartResumed_i();
}

void CRlbConnTCPClient::RefuseResponse_i(const char* aText) {
    CM_WARNING_TRACE_THIS("CRlbConnTCPClient::OnRecvConnResp(), " << aText << ". m_wStatus=" << m_wStatus);
    NoteFailure_i(CM_FAILURE_PROTOCOL, aText);
    RefusePeer_i(CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE);
    Final_i(CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE);
}
