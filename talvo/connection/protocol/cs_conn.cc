// The interface to the upper layer; cs_conn_send.cc sends, cs_conn_receive.cc receives.
#include "talvo/connection/protocol/cs_conn.h"

#include <climits>

#include "talvo/base/trace.h"
#include "talvo/transport/socket_settings.h"

CCsConn::CCsConn(DWORD aMaxBufLen) {
    if (aMaxBufLen > 0)
        m_Buffered.emplace(aMaxBufLen, m_Direct);
}

CCsConn::~CCsConn() { Reset(); }

void CCsConn::TakeTransport_i(ICmTransport* aTransport) {
    SetTPTransport(aTransport);
    m_dwLost = 0;
    m_cBaseType = 0;
    GetTransportOption_i(CM_OPT_TRANSPORT_TRAN_TYPE, &m_cBaseType);
    m_bDatagrams = talvo::CConnectionType(m_cBaseType).IsOverDatagrams();
    m_Direct.SetTransport(aTransport, m_bDatagrams);
    if (aTransport && !m_bDatagrams)
        talvo::AskForLargeReads(*aTransport);
}

CmResult CCsConn::SetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    switch (aCommand) {
    case CS_OPT_MAX_BUFF_LEN:
        return SetMaxBufLen_i(*static_cast<DWORD*>(aArg));
    case CS_OPT_KEEPALIVE_INTERVAL:
        return SetKeepAliveInterval_i(*static_cast<DWORD*>(aArg));
    case CS_OPT_ACK_PROCESSING:
        m_bAckProcessing = *static_cast<BOOL*>(aArg);
        return CM_OK;
    case CS_OPT_MAX_MESSAGE_LEN:
        m_dwMaxMessage = *static_cast<DWORD*>(aArg);
        return CM_OK;
    case CM_OPT_TRANSPORT_CORK:
        m_Direct.SetCorked(*static_cast<BOOL*>(aArg));
        return m_Direct.IsCorked() ? CM_OK : Uncork_i();
    case CM_OPT_TRANSPORT_PAUSE_READING:
        return PauseReading_i(*static_cast<BOOL*>(aArg));
    case CM_OPT_TRANSPORT_LAYERED:
        return SetLayered_i(*static_cast<BOOL*>(aArg));
    default:
        return SetTransportOption_i(aCommand, aArg);
    }
}

CmResult CCsConn::GetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    auto& dwValue = *static_cast<DWORD*>(aArg);
    switch (aCommand) {
    case CS_OPT_MAX_BUFF_LEN:
        dwValue = m_Buffered ? m_Buffered->GetMaxBufLen() : 0;
        return CM_OK;
    case CS_OPT_KEEPALIVE_INTERVAL:
        dwValue = m_Liveness.GetInterval();
        return CM_OK;
    case CS_OPT_ACK_PROCESSING:
        *static_cast<BOOL*>(aArg) = m_bAckProcessing;
        return CM_OK;
    case CS_OPT_MAX_MESSAGE_LEN:
        dwValue = m_dwMaxMessage;
        return CM_OK;
    case CM_OPT_TRANSPORT_UNACKNOWLEDGED:
        dwValue = GetUnsent_i();
        return CM_OK;
    case CM_OPT_TRANSPORT_MAX_MESSAGE:
        dwValue = GetMaxMessage_i();
        return CM_OK;
    default:
        return GetTransportOption_i(aCommand, aArg);
    }
}

// The type decides whether there is a send buffer. Removing it could drop a partly sent PDU, and one without acknowledgements
// would never empty.
CmResult CCsConn::SetMaxBufLen_i(DWORD aLength) {
    if (aLength == 0 || !m_Buffered)
        return CM_ERROR_INVALID_ARG;
    CM_INFO_TRACE_THIS("CCsConn::SetOption set max buff len = " << aLength);
    m_Buffered->SetMaxBufLen(aLength);
    return CM_OK;
}

CmResult CCsConn::SetKeepAliveInterval_i(DWORD aSeconds) {
    if (aSeconds == 0 || aSeconds > INT_MAX)
        return CM_ERROR_INVALID_ARG;
    m_Liveness.SetInterval(aSeconds);
    CM_INFO_TRACE_THIS("CCsConn::SetOption(), CS_OPT_KEEPALIVE_INTERVAL = " << aSeconds << " seconds"
                                                                            << " m_wStatus=" << m_wStatus);
    return m_wStatus == CS_STATUS_CONNECTED && HasKeepAliveTimer_i() ? ScheduleKeepAlive_i() : CM_OK;
}

// While it reconnects, the pause applies to the data behind the handshake.
CmResult CCsConn::PauseReading_i(BOOL aPause) {
    m_Liveness.SetReadingPaused(aPause);
    if (m_wStatus == CS_STATUS_RECONNECTING)
        return CM_OK;
    return SetTransportOption_i(CM_OPT_TRANSPORT_PAUSE_READING, &aPause);
}

CmResult CCsConn::Disconnect(CmResult) {
    m_Est.EnsureSingleThread();
    m_Direct.GetPending().Clear();
    return CM_OK;
}

CmResult CCsConn::Close_i(CmResult aReason) {
    CancelTimers_i();
    m_pSink = nullptr;
    CmResult rv = CM_OK;
    if (m_Buffered && m_wStatus != CS_STATUS_CONNECTED)
        m_Buffered->Reset();  // data that waits for the response must not be sent without it
    if (m_pTransport) {
        SendDisconn(aReason);
        if (aReason != CM_OK || !LetLinger_i())
            rv = DisconnectTransport_i(aReason);
    }
    Reset();
    return rv;
}

void CCsConn::End_i(CmResult aTransportReason) {
    NoteLost_i();
    CancelTimers_i();
    DisconnectTransport_i(aTransportReason);
    Reset();
}

void CCsConn::DetachTransport_i(CmResult aReason) {
    CancelTimers_i();
    SetCurrStatus(CS_STATUS_RECONNECTING);
    const CCmRefPtrT<ICmTransport> pTransport = m_pTransport;
    ForgetTransport_i();
    if (m_Buffered)
        m_Buffered->OnTransportLost();
    if (pTransport)
        pTransport->Disconnect(aReason);
}

CmResult CCsConn::ResumeData_i(DWORD aPeerReceived) {
    if (m_Buffered && !m_Buffered->Resume(aPeerReceived))
        return CM_ERROR_FAILURE;
    SetCurrStatus(CS_STATUS_CONNECTED);
    BOOL bPause = TRUE;
    if (m_Liveness.IsReadingPaused())
        SetTransportOption_i(CM_OPT_TRANSPORT_PAUSE_READING, &bPause);
    return CM_OK;
}

// Clears the state of the transport, not of the connection. The next connect request repeats the receive counter.
void CCsConn::ForgetTransport_i() {
    m_Liveness.Reset();
    m_Reader.Clear();
    m_dwConnReq = 0;
    m_Direct.SetTransport(nullptr, m_bDatagrams);
    SetTPTransport(nullptr);
}

void CCsConn::Reset() {
    ForgetTransport_i();
    if (m_Buffered)
        m_Buffered->Reset();
    m_Direct.SetCorked(FALSE);
    m_bNeedOnSend = FALSE;
    m_dwReceived = 0;
    m_dwAckBytes = 0;
    m_wChannel = 0;
    SetCurrStatus(CS_STATUS_NOT_CONNECTED);
}

void CCsConn::SendKeepAliveIfDue_i() {
    if (m_Liveness.IsKeepAliveDue())
        SendKeepAlive();
}
