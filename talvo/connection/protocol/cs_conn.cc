// The face towards the upper layer; sending stands in cs_conn_send.cc, receiving in cs_conn_receive.cc.
#include "talvo/connection/protocol/cs_conn.h"

#include <climits>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/transport/tcp_settings.h"

namespace {

constexpr DWORD BASE_TYPE_DATAGRAM_BIT = 0x2;
constexpr DWORD IDLE_LIMIT_MSEC = 120000;

}  // namespace

CCsConn::CCsConn(DWORD aMaxBufLen) : m_SendBuf(aMaxBufLen), m_dwMaxBufLen(aMaxBufLen) {}

CCsConn::~CCsConn() { Reset(); }

void CCsConn::TakeTransport_i(ICmTransport* aTransport) {
    SetTPTransport(aTransport);
    m_cBaseType = 0;
    GetTransportOption_i(CM_OPT_TRANSPORT_TRAN_TYPE, &m_cBaseType);
    m_bDatagrams = (m_cBaseType & BASE_TYPE_DATAGRAM_BIT) != 0;
    m_Pending.SetDatagrams(m_bDatagrams);
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
        m_bCorked = *static_cast<BOOL*>(aArg);
        return m_bCorked ? CM_OK : Uncork_i();
    case CM_OPT_TRANSPORT_PAUSE_READING:
        if (std::exchange(m_bReadingPaused, *static_cast<BOOL*>(aArg)))
            m_dwLastRecvTick = get_tick_count();
        return SetTransportOption_i(aCommand, aArg);
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
        dwValue = m_dwMaxBufLen;
        return CM_OK;
    case CS_OPT_KEEPALIVE_INTERVAL:
        dwValue = m_dwKeepAliveInterval;
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

// Whether there is a send buffer is a matter of the type: taken away it could drop a begun PDU, and one made where nothing is
// acknowledged would never empty.
CmResult CCsConn::SetMaxBufLen_i(DWORD aLength) {
    if (aLength == 0 || m_dwMaxBufLen == 0)
        return CM_ERROR_INVALID_ARG;
    CM_INFO_TRACE_THIS("CCsConn::SetOption set max buff len = " << aLength);
    m_dwMaxBufLen = aLength;
    m_SendBuf.SetMaxBufLen(aLength);
    return CM_OK;
}

CmResult CCsConn::SetKeepAliveInterval_i(DWORD aSeconds) {
    if (aSeconds == 0 || aSeconds > INT_MAX)
        return CM_ERROR_INVALID_ARG;
    m_dwKeepAliveInterval = aSeconds;
    CM_INFO_TRACE_THIS("CCsConn::SetOption(), CS_OPT_KEEPALIVE_INTERVAL = " << aSeconds << " seconds"
                                                                            << " m_wStatus=" << m_wStatus);
    return m_wStatus == CS_STATUS_CONNECTED && HasKeepAliveTimer_i() ? ScheduleKeepAlive_i() : CM_OK;
}

CmResult CCsConn::Disconnect(CmResult) {
    m_Est.EnsureSingleThread();
    m_Pending.Clear();
    return CM_OK;
}

CmResult CCsConn::Close_i(CmResult aReason) {
    CancelTimers_i();
    m_pSink = nullptr;
    CmResult rv = CM_OK;
    if (m_wStatus == CS_STATUS_HANDSHAKE)
        m_SendBuf.Reset();  // data that waits for the response must not go without it
    if (m_pTransport) {
        SendDisconn(aReason);
        if (aReason != CM_OK || !LetLinger_i())
            rv = DisconnectTransport_i(aReason);
    }
    Reset();
    return rv;
}

void CCsConn::End_i(CmResult aTransportReason) {
    CancelTimers_i();
    DisconnectTransport_i(aTransportReason);
    Reset();
}

void CCsConn::Reset() {
    m_dwReceived = 0;
    m_dwAckBytes = 0;
    m_dwLastSendTick = 0;
    m_dwLastRecvTick = 0;
    m_bHasReceived = FALSE;
    m_bCorked = FALSE;
    m_bRefused = FALSE;
    m_bNeedOnSend = FALSE;
    m_Pending.Clear();
    m_SendBuf.Reset();
    m_Receive.Clear();
    m_dwConnReq = 0;
    Reset4Recv();
    SetTPTransport(nullptr);
    m_wChannel = 0;
    m_wPrevStatus = m_wStatus = CS_STATUS_NOT_CONNECTED;
}

CmResult CCsConn::ScheduleKeepAlive_i() {
    const CmResult rv = m_KeepAliveTimer.Schedule(this, CCmTimeValue(static_cast<long>(m_dwKeepAliveInterval)));
    return rv == CM_ERROR_FOUND ? CM_OK : rv;
}

// Kept on purpose: the interval, in seconds, is compared with milliseconds, so a keep-alive leaves at nearly every firing, busy
// or not. Pinned by PkgConnTest.KeepAliveLeavesEvenWhileDataFlows.
void CCsConn::SendKeepAliveIfDue_i() {
    if (calculate_tick_interval(m_dwLastSendTick, get_tick_count()) > m_dwKeepAliveInterval)
        SendKeepAlive();
}

BOOL CCsConn::IsPeerSilent_i(DWORD& aSilence) const {
    aSilence = calculate_tick_interval(m_dwLastRecvTick, get_tick_count());
    return m_bHasReceived && !m_bReadingPaused && aSilence >= IDLE_LIMIT_MSEC;
}
