#include "talvo/connection/protocol/rlb_conn.h"

#include <algorithm>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/trace.h"
#include "talvo/transport/transport_linger.h"

namespace {

constexpr DWORD DEFAULT_BUFFER = 1 << 20;
constexpr DWORD MOST_GROWN = 8 << 20;  // twice what a socket keeps unacknowledged by default
constexpr DWORD MIN_BUFFER = 4096;
constexpr DWORD MAX_BUFFER = 1 << 30;  // a quarter of the numbers: each acknowledgement has one reading
constexpr DWORD DEFAULT_SILENCE = 45;  // seconds, as are the next
constexpr DWORD MAX_SECONDS = 86400;
const CCmTimeValue ACK_DELAY(0, 200000);

CmResult ResultOfTimer(CmResult aResult) { return aResult == CM_ERROR_FOUND ? CM_OK : aResult; }

}  // namespace

CRlbConn::CRlbConn(BYTE aInstanceType) : CCsConn(DEFAULT_BUFFER) {
    m_dwType = TYPE_RELIABLE;
    m_bNeedACK = TRUE;
    m_bNeedKeepAlive = TRUE;
    m_byInstanceType = aInstanceType;
    m_Liveness.SetSilenceLimit(DEFAULT_SILENCE * 1000);
    m_Buffered->LetGrow(MOST_GROWN);
}

void CRlbConn::UseToken(BOOL aToken) {
    if (aToken)
        m_byConnType = CCsPduConnToken::CONN_TYPE;
}

CmResult CRlbConn::SetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    const DWORD dwValue = *static_cast<DWORD*>(aArg);
    switch (aCommand) {
    case CS_OPT_RECONNECT_TIME:
    case CS_OPT_SILENCE_LIMIT:
        return SetSeconds_i(aCommand, dwValue);
    case CS_OPT_MAX_BUFF_LEN:
        if (dwValue < MIN_BUFFER || dwValue > MAX_BUFFER)
            return CM_ERROR_INVALID_ARG;
        return CCsConn::SetOption(aCommand, aArg);
    case CM_OPT_TRANSPORT_RECONNECT_SINK:
        m_pReconnectSink = *static_cast<ICmReconnectSink**>(aArg);
        m_bToldSuspended = FALSE;
        return CM_OK;
    default:
        return talvo::CKeptOptions::IsKept(aCommand) ? SetKeptOption_i(aCommand, aArg) : CCsConn::SetOption(aCommand, aArg);
    }
}

CmResult CRlbConn::SetSeconds_i(DWORD aCommand, DWORD aSeconds) {
    if (aSeconds == 0 || aSeconds > MAX_SECONDS)
        return CM_ERROR_INVALID_ARG;
    if (aCommand == CS_OPT_RECONNECT_TIME) {
        m_dwReconnectTime = aSeconds;
        return CM_OK;
    }
    m_Liveness.SetSilenceLimit(aSeconds * 1000);
    return m_wStatus != CS_STATUS_CONNECTED || StartSilence_i() ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CRlbConn::SetKeptOption_i(DWORD aCommand, void* aArg) {
    const CmResult rv = m_wStatus == CS_STATUS_RECONNECTING ? CM_OK : SetTransportOption_i(aCommand, aArg);
    if (rv == CM_OK)
        m_Kept.Keep(aCommand, *static_cast<DWORD*>(aArg));
    return rv;
}

CmResult CRlbConn::GetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    auto& dwValue = *static_cast<DWORD*>(aArg);
    switch (aCommand) {
    case CS_OPT_RECONNECT_TIME:
        dwValue = m_dwReconnectTime;
        return CM_OK;
    case CS_OPT_SILENCE_LIMIT:
        dwValue = m_Liveness.GetSilenceLimit() / 1000;
        return CM_OK;
    case CM_OPT_TRANSPORT_UNACKNOWLEDGED:
        dwValue = m_wStatus == CS_STATUS_NOT_CONNECTED ? m_dwLost : GetKept_i();
        return CM_OK;
    case CM_OPT_TRANSPORT_RECONNECT_STATUS:
        return GetStatus_i(*static_cast<CCmReconnectStatus*>(aArg));
    case CM_OPT_TRANSPORT_PAUSE_READING:
        *static_cast<BOOL*>(aArg) = m_Liveness.IsReadingPaused();
        return CM_OK;
    default:
        if (m_wStatus == CS_STATUS_RECONNECTING && m_Kept.Get(aCommand, dwValue))
            return CM_OK;
        return CCsConn::GetOption(aCommand, aArg);
    }
}

DWORD CRlbConn::GetSince_i() const { return calculate_tick_interval(m_dwSinceTick, get_tick_count()); }

CmResult CRlbConn::GetStatus_i(CCmReconnectStatus& aStatus) const {
    aStatus = m_Status;
    return CM_OK;
}

CmResult CRlbConn::Disconnect(CmResult aReason) {
    m_Est.EnsureSingleThread();
    CM_INFO_TRACE_THIS("CRlbConn::Disconnect(), aReason =" << aReason << " m_wStatus=" << m_wStatus);
    m_pReconnectSink = nullptr;
    m_Deadline.Cancel();
    Ending_i(TRUE, aReason);
    if (m_wStatus != CS_STATUS_RECONNECTING)
        return Close_i(aReason);
    m_pSink = nullptr;
    End_i(CM_ERROR_NETWORK_IN_DOUBT);
    return CM_ERROR_NETWORK_IN_DOUBT;
}

// Without a transport nothing is sent any more, and no sink gets the result of Disconnect. At the limit of a drain the bytes
// already count as unfinished.
void CRlbConn::EndInOrder_i(BOOL aCut) {
    if (!aCut && m_wStatus == CS_STATUS_RECONNECTING)
        CountLost(GetKept_i());
    Disconnect(CM_OK);
}

void CRlbConn::CancelTimers_i() {
    CCsConn::CancelTimers_i();
    m_Timer.Cancel();
    m_AckTimer.Cancel();
    m_bAckTimer = m_bAckWanted = m_bKeepAlive = FALSE;
}

BOOL CRlbConn::ArmTimer_i(const CCmTimeValue& aTime) { return ResultOfTimer(m_Timer.Schedule(this, aTime, 1)) == CM_OK; }

void CRlbConn::OnTimer(CCmTimerWrapperID* aId) {
    m_Est.EnsureSingleThread();
    if (aId == &m_AckTimer) {
        m_bAckTimer = FALSE;
        SendAck_i();
    } else if (aId == &m_Deadline) {
        CM_WARNING_TRACE_THIS("CRlbConn::OnTimer(), not reconnected in time. seconds=" << m_dwReconnectTime);
        Final_i(GetLateReason_i());
    } else if (aId != &m_Timer) {
        SendKeepAliveIfDue_i();
    } else if (m_wStatus == CS_STATUS_HANDSHAKE || m_wStatus == CS_STATUS_NOT_CONNECTED) {
        CM_WARNING_TRACE_THIS("CRlbConn::OnTimer(), the handshake is not complete.");
        NoteFailure_i(CM_FAILURE_SILENCE, "the peer has not answered the connect request");
        Final_i(CM_ERROR_NETWORK_CONNECT_ERROR);
    } else if (m_wStatus == CS_STATUS_RECONNECTING) {
        OnRetryTimer_i();
    } else if (!m_Liveness.IsPeerSilent()) {
        StartSilence_i();
    } else {
        CM_WARNING_TRACE_THIS("CRlbConn::OnTimer(), the peer is silent. milliseconds=" << m_Liveness.GetSilence());
        OnDisconnect(CM_ERROR_NETWORK_CONNECT_TIMEOUT, m_pTransport.Get());
    }
}

// The timer is not moved by each byte: it fires when the peer may be silent, and looks again.
BOOL CRlbConn::StartSilence_i() {
    const DWORD dwLimit = m_Liveness.GetSilenceLimit();
    const DWORD dwSilence = m_Liveness.IsReadingPaused() ? 0 : std::min(m_Liveness.GetSilence(), dwLimit);
    return ArmTimer_i(CCmTimeValue::FromUsec(std::max<int64_t>(dwLimit - dwSilence, 1) * 1000));
}

CmResult CRlbConn::StartConnected_i() {
    m_dwSinceTick = get_tick_count();
    m_Liveness.OnReceived();
    const CmResult rv = ScheduleKeepAlive_i();
    return rv == CM_OK && !StartSilence_i() ? CM_ERROR_OUT_OF_MEMORY : rv;
}

void CRlbConn::OnReceive(CCmMessageBlock& aData, ICmTransport* aTrpt, CCmTransportParameter* aPara) {
    CCsConn::OnReceive(aData, aTrpt, aPara);
    if (aTrpt == m_pTransport.Get())
        ACK2PeerIfPossiable(aData);
}

// Enough bytes are acknowledged at once, but only once for each report; a rest after a delay.
void CRlbConn::ACK2PeerIfPossiable(CCmMessageBlock& aData) {
    CCsConn::ACK2PeerIfPossiable(aData);
    if (m_wStatus != CS_STATUS_CONNECTED || m_bAckTimer || m_bAckWanted || !IsAckDue_i())
        return;
    m_bAckTimer = ResultOfTimer(m_AckTimer.Schedule(this, ACK_DELAY, 1)) == CM_OK;
    if (!m_bAckTimer)
        SendAck_i();
}

void CRlbConn::SendAck_i() {
    if (m_wStatus != CS_STATUS_CONNECTED || !IsAckDue_i())
        return;
    m_bAckWanted = TRUE;
    SendDataFromSendBuf();
}

CmResult CRlbConn::SendKeepAlive() {
    if (m_wStatus != CS_STATUS_CONNECTED || !m_pTransport)
        return CM_ERROR_NOT_AVAILABLE;
    m_bKeepAlive = TRUE;
    return SendDataFromSendBuf();
}

// The data goes first, with the counter in its headers. A keep-alive PDU needs no room in the send buffer: two ends that have
// filled each other's buffers would otherwise wait for ever.
CmResult CRlbConn::SendDataFromSendBuf() {
    const CmResult rv = CCsConn::SendDataFromSendBuf();
    if (rv != CM_OK || m_wStatus != CS_STATUS_CONNECTED || !m_pTransport)
        return rv;
    const BOOL bDue = m_bKeepAlive || (m_bAckWanted && IsAckDue_i());
    m_bKeepAlive = m_bAckWanted = FALSE;
    if (!bDue)
        return rv;
    m_Buffered->GetSendBuf().SetACKSent(m_dwReceived);
    return EndIfBroken_i(m_Direct.SendPdu(CCsPduKeepAlive(m_dwReceived)));
}

// All of the token form is there, or the first 8 bytes of another form, which has another ConnType.
BOOL CRlbConn::IsConnectPduWhole_i() {
    BYTE header[8] = {};
    m_Reader.Peek(header, sizeof header);
    if (IsToken_i() && header[7] == CCsPduConnToken::CONN_TYPE)
        m_Reader.SetLength(CCsPduConnToken::LENGTH);
    return m_Reader.IsReady();
}

CCsPduConnToken CRlbConn::TakeRequestOrResponse_i() {
    CCsPduConnToken pdu;
    if (m_Reader.GetLength() == CCsPduConnToken::LENGTH)
        m_Reader.TakeFixed(pdu);
    else
        static_cast<CCsPduConnReqResp&>(pdu) = TakeConnectPdu_i();
    return pdu;
}

void CRlbConn::EncodeConnectPdu_i(BYTE aType, CCmMessageBlock& aMb) const {
    if (!IsToken_i()) {
        CCsConn::EncodeConnectPdu_i(aType, aMb);
        return;
    }
    CCsPduConnToken pdu(m_dwReceived, m_wChannel, aType, m_byConnType);
    pdu.m_Token = m_Token;
    pdu.m_dwAttempt = m_dwAttempt;
    pdu.Encode(aMb);
}

void CRlbConn::OnDisconnect(CmResult aReason, ICmTransport* aTrpt) {
    m_Est.EnsureSingleThread();
    if (!aTrpt || aTrpt != m_pTransport.Get())
        return;
    CM_INFO_TRACE_THIS("CRlbConn::OnDisconnect(), aReason =" << aReason << " m_wStatus=" << m_wStatus);
    if (m_wStatus != CS_STATUS_CONNECTED) {
        LostWhileOpening_i(aReason);
        return;
    }
    const DWORD dwConnected = GetSince_i();
    if (Detach_i(aReason))
        Suspended_i(aReason, dwConnected);
    else
        Final_i(CM_ERROR_OUT_OF_MEMORY);
}

BOOL CRlbConn::Detach_i(CmResult aReason) {
    DetachTransport_i(aReason == CM_OK ? CM_ERROR_NETWORK_SOCKET_ERROR : aReason);
    m_Status.m_bSuspended = TRUE;
    m_dwSinceTick = get_tick_count();
    return ResultOfTimer(m_Deadline.Schedule(this, CCmTimeValue(static_cast<long>(m_dwReconnectTime)), 1)) == CM_OK;
}

void CRlbConn::TellSuspended_i(CmResult aReason) {
    if (m_pReconnectSink && !std::exchange(m_bToldSuspended, TRUE))
        m_pReconnectSink->OnSuspended(this, aReason);
}

void CRlbConn::Continue_i(DWORD aPeerReceived) {
    m_Deadline.Cancel();
    m_Status.m_bSuspended = FALSE;
    ++m_Status.m_dwResumed;
    m_Status.m_ullSuspendedMilliseconds += GetSince_i();
    ResumeData_i(aPeerReceived);
    m_Status.m_ullSentAgain += m_Buffered->GetSendBuf().GetRepeated();
    m_Buffered->GetSendBuf().SetACKSent(m_dwReceived);  // the connect PDU has it
    m_Kept.Apply(*m_pTransport);
}

void CRlbConn::StartResumed_i() {
    const DWORD dwGap = GetSince_i();
    const ICmTransport* pTransport = m_pTransport.Get();
    if (const CmResult rv = StartConnected_i(); rv != CM_OK) {
        Final_i(rv);
        return;
    }
    if (std::exchange(m_bToldSuspended, FALSE) && m_pReconnectSink)
        m_pReconnectSink->OnResumed(this, dwGap);
    if (m_pTransport.Get() == pTransport && m_wStatus == CS_STATUS_CONNECTED)
        StartData_i();
}

void CRlbConn::Final_i(CmResult aReason) {
    const BOOL bOpened = m_wStatus == CS_STATUS_CONNECTED || m_wStatus == CS_STATUS_RECONNECTING;
    m_pReconnectSink = nullptr;
    m_Deadline.Cancel();
    if (aReason == CM_ERROR_NETWORK_PEER_NOT_BACK || aReason == CM_ERROR_NETWORK_RECONNECT_FAILED)
        NoteFailure_i(CM_FAILURE_SILENCE, "the peer was not reached again in time");
    else if (aReason == CM_ERROR_NETWORK_CONNECT_REFUSED)
        NoteFailure_i(CM_FAILURE_PROTOCOL, "the peer does not have the connection");
    Ending_i(FALSE, aReason);
    End_i(CM_ERROR_NETWORK_CONNECT_TIMEOUT);
    if (bOpened)
        NotifyEnd_i(aReason);
    else
        Indicate_i(aReason == CM_OK ? CM_ERROR_NETWORK_SOCKET_CLOSE : aReason);
}

// The transport lingers: a close with unread bytes of the peer would reset it, and the PDU could be lost.
void CRlbConn::RefusePeer_i(CmResult aReason) {
    const CCmRefPtrT<ICmTransport> pTransport = m_pTransport;
    if (!pTransport)
        return;
    m_Direct.SendPdu(CCsPduDisconn(static_cast<WORD>(aReason)));
    CCmChainPtr pRest = m_Direct.GetPending().TakeAll();
    SetTPTransport(nullptr);
    m_Direct.SetTransport(nullptr, FALSE);
    if (!talvo::CTransportLinger::Begin(*pTransport, std::move(pRest)))
        pTransport->Disconnect(CM_OK);
}

void CRlbConn::ViolatedBy_i(const char* aText) {
    CM_WARNING_TRACE_THIS("CRlbConn, violation: " << aText << ". m_wStatus=" << m_wStatus);
    NoteFailure_i(CM_FAILURE_PROTOCOL, aText);
    Final_i(CM_ERROR_NOT_AVAILABLE);
}
