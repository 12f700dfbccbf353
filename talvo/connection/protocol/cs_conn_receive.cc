// The receiving half of the engine.
#include <limits>

#include "talvo/base/trace.h"
#include "talvo/connection/protocol/cs_conn.h"

namespace {

// An address as the transport tells it, for the trace.
CCmTraceText AddressOf(ICmTransport* aTransport, DWORD aCommand) {
    CCmInetAddr addr;
    CCmTraceText text;
    if (!aTransport || aTransport->GetOption(aCommand, &addr) != CM_OK)
        return text << "none";
    return text << addr.GetIpDisplayName() << ":" << addr.GetPort();
}
CCmTraceText LocalOf(ICmTransport* aTransport) { return AddressOf(aTransport, CM_OPT_TRANSPORT_LOCAL_ADDR); }
CCmTraceText PeerOf(ICmTransport* aTransport) { return AddressOf(aTransport, CM_OPT_TRANSPORT_PEER_ADDR); }

}  // namespace

void CCsConn::Reset4Recv() {
    m_dwPDULen = 1;
    m_byType = CS_PDU_TYPE_NONE;
    m_bDataLenKnown = FALSE;
}

BOOL CCsConn::IsMine_i(ICmTransport* aTrpt) {
    if (aTrpt == m_pTransport.Get())
        return TRUE;
    CM_WARNING_TRACE_THIS("CCsConn::OnReceive, src_ip1=" << LocalOf(aTrpt).GetText() << " dst_ip1=" << PeerOf(aTrpt).GetText()
                                                         << " src_ip2=" << LocalOf(m_pTransport.Get()).GetText()
                                                         << " dst_ip2=" << PeerOf(m_pTransport.Get()).GetText());
    return FALSE;
}

// Holds no reference on itself: the last release inside an upcall shall end the connection at once, so that no further PDU is
// taken. The object stays until the loop is reached.
void CCsConn::OnReceive(CCmMessageBlock& aData, ICmTransport* aTrpt, CCmTransportParameter* aPara) {
    m_Est.EnsureSingleThread();
    if (!IsMine_i(aTrpt))
        return;
    m_dwLastRecvTick = get_tick_count();
    m_bHasReceived = TRUE;
    const DWORD dwHave = m_Receive.GetLength();
    if (m_Receive.Append(aData, m_dwPDULen > dwHave ? m_dwPDULen - dwHave : 0) != CM_OK) {
        OnDisconnect(CM_ERROR_OUT_OF_MEMORY, m_pTransport.Get());
        return;
    }
    while (m_Receive.GetLength() >= m_dwPDULen && TakePdu_i(aPara)) {
    }
    if (m_bDatagrams)
        DropDatagramRest_i();
}

// One PDU is one datagram: what is too much or too little is never joined to the next.
void CCsConn::DropDatagramRest_i() {
    if (m_Receive.GetLength() > 0)
        CM_WARNING_TRACE_THIS("CCsConn::OnReceive, drop the rest of a datagram, len=" << m_Receive.GetLength());
    m_Receive.Clear();
    Reset4Recv();
}

// TRUE: there may be another one.
BOOL CCsConn::TakePdu_i(CCmTransportParameter* aPara) {
    if (m_byType == CS_PDU_TYPE_NONE && !GetPDUType())
        return Refuse_i("CCsConn::OnReceive(), Invalid PDU type, m_byType=");
    const BOOL bWhole = m_Receive.GetLength() >= m_dwPDULen;
    switch (m_byType) {
    case CS_PDU_TYPE_CONN_REQ:
    case CS_PDU_TYPE_CONN_RESP:
        if (m_byType != m_byInstanceType)  // a server takes requests (1), a client responses (2)
            break;
        if (!bWhole)
            return FALSE;
        m_byType == CS_PDU_TYPE_CONN_REQ ? OnRecvConnReq() : OnRecvConnResp();
        Reset4Recv();
        return !m_bDatagrams;
    case CS_PDU_TYPE_DISCONN:
        if (bWhole)
            OnRecvDisconn();
        return FALSE;
    case CS_PDU_TYPE_KEEPALIVE:
        if (!bWhole)
            return FALSE;
        OnRecvKeepAlive();
        Reset4Recv();
        return !m_bDatagrams;
    case CS_PDU_TYPE_DATA_START:
    case CS_PDU_TYPE_DATA_NORMAL:
        if (m_wStatus == CS_STATUS_CONNECTED)
            return TakeData_i(aPara) && !m_bDatagrams;
        // The response was lost or overtaken; the request goes out again.
        if (m_bDatagrams && m_wStatus == CS_STATUS_HANDSHAKE && m_byInstanceType == INSTANCE_CLIENT)
            return FALSE;
        break;
    default:
        break;
    }
    return Refuse_i("CCsConn::OnReceive, Invalid PDU type, Drop it. m_byType=");
}

BOOL CCsConn::Refuse_i(const char* aText) {
    NoteFailure_i(CM_FAILURE_PROTOCOL, "the peer has sent a PDU that does not fit");
    CM_WARNING_TRACE_THIS(aText << static_cast<int>(m_byType) << " m_wStatus=" << m_wStatus
                                << " peer=" << PeerOf(m_pTransport.Get()).GetText());
    OnDisconnect(CM_ERROR_NOT_AVAILABLE, m_pTransport.Get());
    return FALSE;
}

BOOL CCsConn::GetPDUType() {
    m_Receive.Peek(&m_byType, sizeof m_byType);
    m_dwPDULen = CCsPduBase::GetFixLength(m_byType, m_bNeedACK);
    if (m_dwPDULen > 0)
        return TRUE;
    CM_WARNING_TRACE_THIS("CCsConn::GetPDUType, wrong pdu, pdu len = 0, m_byType=" << static_cast<int>(m_byType));
    return FALSE;
}

// Needs no memory.
void CCsConn::TakeFixedPdu_i(CCsPduBase& aPdu) {
    char szPdu[CCsPduBase::MAX_FIX_LENGTH] = {};
    const DWORD dwLength = aPdu.GetFixLength();
    m_Receive.Peek(szPdu, dwLength);
    m_Receive.Skip(dwLength);
    CCmMessageBlock block(dwLength, szPdu, 0, dwLength);
    aPdu.Decode(block);
}

CCsPduConnReqResp CCsConn::TakeConnectPdu_i() {
    CCsPduConnReqResp pdu(0, 0, CS_PDU_TYPE_CONN_REQ, 15);
    TakeFixedPdu_i(pdu);
    return pdu;
}

void CCsConn::OnRecvDisconn() {
    CCsPduDisconn pdu(0, CS_PDU_TYPE_DISCONN);
    TakeFixedPdu_i(pdu);
    m_bPeerDisconnected = TRUE;
    m_KeepAliveTimer.Cancel();
    CM_INFO_TRACE_THIS("CCsConn::OnRecvDisconn(), Normal disconnect, wReason =" << pdu.GetReason());
    Reset4Recv();
    OnDisconnect(pdu.GetReason(), m_pTransport.Get());
}

// Kept on purpose: only reliable connections look at the acknowledgement.
void CCsConn::OnRecvKeepAlive() {
    CCsPduKeepAlive pdu(0, CS_PDU_TYPE_KEEPALIVE);
    if (m_dwType != TYPE_RELIABLE) {
        m_Receive.Skip(pdu.GetFixLength());
        return;
    }
    TakeFixedPdu_i(pdu);
    if (m_bNeedACK && m_dwMaxBufLen > 0)
        DoACK(pdu.GetACK());
}

// The fixed part says how long the PDU is. FALSE: not all of it is there, or the connection has ended over it.
BOOL CCsConn::ReadDataLength_i() {
    if (m_Receive.GetLength() < m_dwPDULen) {
        CM_INFO_TRACE_THIS("CCsConn::OnReceive, half PDU header. half_len=" << m_Receive.GetLength()
                                                                            << " m_dwPDULen=" << m_dwPDULen);
        return FALSE;
    }
    char szHeader[CCsPduBase::MAX_FIX_LENGTH] = {};
    m_Receive.Peek(szHeader, m_dwPDULen);
    CCmMessageBlock header(m_dwPDULen, szHeader, 0, m_dwPDULen);
    CCsPduData pdu(m_bNeedACK, 0, 0, m_byType, nullptr);
    pdu.DecodeWithOutData(header);
    const DWORD dwDataLen = pdu.GetDataLen();
    if (dwDataLen > m_dwMaxMessage || dwDataLen > std::numeric_limits<DWORD>::max() - m_dwPDULen) {
        CM_WARNING_TRACE_THIS("CCsConn::OnReceive, message too long, len=" << dwDataLen << " max=" << m_dwMaxMessage
                                                                           << " peer=" << PeerOf(m_pTransport.Get()).GetText());
        NoteFailure_i(CM_FAILURE_PROTOCOL, "the peer has announced a message that is too long");
        OnDisconnect(CM_ERROR_NOT_AVAILABLE, m_pTransport.Get());
        return FALSE;
    }
    m_dwPDULen += dwDataLen;
    m_dwDataLen = dwDataLen;
    m_dwACK = pdu.GetACK();
    m_bDataLenKnown = TRUE;
    return TRUE;
}

BOOL CCsConn::TakeData_i(CCmTransportParameter* aPara) {
    if (!m_bDataLenKnown && !ReadDataLength_i())
        return FALSE;
    if (m_Receive.GetLength() < m_dwPDULen)
        return FALSE;
    const DWORD dwPDULen = m_dwPDULen;
    const DWORD dwDataLen = m_dwDataLen;
    m_Receive.Skip(dwPDULen - dwDataLen);
    if (m_bNeedACK && m_dwMaxBufLen > 0)
        DoACK(m_dwACK);
    if (!m_pTransport)  // ended inside the upcall
        return FALSE;
    CmResult rv = CM_OK;
    if (ICmTransportSink* pSink = m_pSink) {
        rv = m_Receive.Take(dwDataLen, [&](CCmMessageBlock& aPayload) { pSink->OnReceive(aPayload, this, aPara); });
    } else {
        CM_WARNING_TRACE_THIS("CCsConn::OnReceive, can't get the sink,discard data, len =" << dwDataLen);
        m_Receive.Skip(dwDataLen);
    }
    if (rv != CM_OK)
        OnDisconnect(rv, m_pTransport.Get());
    if (!m_pTransport)
        return FALSE;
    // A sender that starts anew counts from 1 again, and so does the counter, which is the end of the last PDU.
    m_dwReceived = m_byType == CS_PDU_TYPE_DATA_START ? dwPDULen : m_dwReceived + dwPDULen;
    m_SendBuf.SetSeq4ACK(m_dwReceived);
    Reset4Recv();
    return TRUE;
}

void CCsConn::ACK2PeerIfPossiable(CCmMessageBlock& aData) {
    constexpr DWORD ACK_EVERY = 10240;
    if (m_wStatus != CS_STATUS_CONNECTED)
        return;
    m_dwAckBytes += aData.GetChainedLength();
    if (m_dwAckBytes >= ACK_EVERY)
        m_dwAckBytes = m_dwReceived % ACK_EVERY;  // of the receive counter, on purpose
}
