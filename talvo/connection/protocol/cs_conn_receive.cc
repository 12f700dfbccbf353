// The receiving half of the engine.
#include "talvo/base/trace.h"
#include "talvo/connection/protocol/cs_conn.h"

namespace {

// An address of the transport, for the trace.
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

BOOL CCsConn::IsMine_i(ICmTransport* aTrpt) {
    if (aTrpt == m_pTransport.Get())
        return TRUE;
    CM_WARNING_TRACE_THIS("CCsConn::OnReceive, src_ip1=" << LocalOf(aTrpt).GetText() << " dst_ip1=" << PeerOf(aTrpt).GetText()
                                                         << " src_ip2=" << LocalOf(m_pTransport.Get()).GetText()
                                                         << " dst_ip2=" << PeerOf(m_pTransport.Get()).GetText());
    return FALSE;
}

// Holds no reference to itself: the last release inside an upcall must end the connection at once, so that no further PDU is
// taken. The object stays until the loop's next turn.
void CCsConn::OnReceive(CCmMessageBlock& aData, ICmTransport* aTrpt, CCmTransportParameter* aPara) {
    m_Est.EnsureSingleThread();
    if (!IsMine_i(aTrpt))
        return;
    m_Liveness.OnReceived();
    CmResult rv = m_Reader.Borrow(aData);
    while (rv == CM_OK && m_Reader.IsReady() && TakePdu_i(aPara)) {
    }
    if (rv == CM_OK && m_bDatagrams)
        DropDatagramRest_i();
    else if (rv == CM_OK)
        rv = m_Reader.Keep();
    if (rv != CM_OK)
        Finish_i(rv);
}

// One PDU is one datagram: excess or missing bytes are never joined to the next.
void CCsConn::DropDatagramRest_i() {
    if (m_Reader.GetReceived() > 0)
        CM_WARNING_TRACE_THIS("CCsConn::OnReceive, drop the rest of a datagram, len=" << m_Reader.GetReceived());
    m_Reader.Clear();
}

// TRUE: there may be another one.
BOOL CCsConn::TakePdu_i(CCmTransportParameter* aPara) {
    const char* pFrames = nullptr;
    if (const talvo::CWholeFrames frames = FindFrames_i(pFrames); frames.m_dwCount > 0)
        return PassFrames_i(pFrames, frames);
    if (m_Reader.GetType() == CS_PDU_TYPE_NONE && !GetPDUType())
        return Refuse_i("CCsConn::OnReceive(), Invalid PDU type, m_byType=");
    const BYTE byType = m_Reader.GetType();
    const BOOL bWhole = m_Reader.IsReady();
    switch (byType) {
    case CS_PDU_TYPE_CONN_REQ:
    case CS_PDU_TYPE_CONN_RESP:
        if (byType != m_byInstanceType)  // a server accepts requests (1), a client responses (2)
            break;
        if (!bWhole || !IsConnectPduWhole_i())
            return FALSE;
        byType == CS_PDU_TYPE_CONN_REQ ? OnRecvConnReq() : OnRecvConnResp();
        Reset4Recv();
        return !m_bDatagrams;
    case CS_PDU_TYPE_DISCONN:
        if (bWhole)
            OnRecvDisconn();
        return FALSE;
    case CS_PDU_TYPE_KEEPALIVE:
        if (m_dwType == TYPE_RELIABLE && m_wStatus != CS_STATUS_CONNECTED)
            break;  // before the response there is no acknowledgement
        if (!bWhole)
            return FALSE;
        OnRecvKeepAlive();
        Reset4Recv();
        return !m_bDatagrams;
    case CS_PDU_TYPE_DATA_START:
    case CS_PDU_TYPE_DATA_NORMAL:
        if (m_wStatus == CS_STATUS_CONNECTED)
            return TakeData_i(aPara) && !m_bDatagrams;
        // The response was lost or overtaken; the request is sent again.
        if (m_bDatagrams && m_wStatus == CS_STATUS_HANDSHAKE && m_byInstanceType == INSTANCE_CLIENT)
            return FALSE;
        break;
    default:
        break;
    }
    return Refuse_i("CCsConn::OnReceive, Invalid PDU type, Drop it. m_byType=");
}

// None: the next PDU is no small data PDU or not complete, or the sink takes messages only.
talvo::CWholeFrames CCsConn::FindFrames_i(const char*& aFrames) const {
    if (!GetFrameSink_i() || m_wStatus != CS_STATUS_CONNECTED || m_Reader.GetType() != CS_PDU_TYPE_NONE ||
        GetFraming() != PACKAGE)
        return {};
    DWORD dwLength = 0;
    aFrames = m_Reader.GetBorrowed(dwLength);
    return talvo::FindWholeFrames(aFrames, dwLength, PACKAGE, m_dwMaxMessage);
}

// FALSE: the transport was lost inside the upcall.
BOOL CCsConn::PassFrames_i(const char* aFrames, const talvo::CWholeFrames& aWhole) {
    const ICmTransport* pTransport = m_pTransport.Get();
    m_Reader.Skip(aWhole.m_dwLength);
    GetFrameSink_i()->OnFrames(aFrames, aWhole.m_dwLength, aWhole.m_dwCount);
    if (m_pTransport.Get() != pTransport || m_wStatus == CS_STATUS_NOT_CONNECTED)
        return FALSE;
    SetReceived_i(m_dwReceived + aWhole.m_dwLength);
    return TRUE;
}

BOOL CCsConn::Refuse_i(const char* aText) {
    NoteFailure_i(CM_FAILURE_PROTOCOL, "the peer has sent a PDU that does not fit");
    CM_WARNING_TRACE_THIS(aText << static_cast<int>(m_Reader.GetType()) << " m_wStatus=" << m_wStatus
                                << " peer=" << PeerOf(m_pTransport.Get()).GetText());
    Finish_i(CM_ERROR_NOT_AVAILABLE);
    return FALSE;
}

BOOL CCsConn::GetPDUType() {
    if (m_Reader.ReadType(m_bNeedACK))
        return TRUE;
    CM_WARNING_TRACE_THIS("CCsConn::GetPDUType, wrong pdu, pdu len = 0, m_byType=" << static_cast<int>(m_Reader.GetType()));
    return FALSE;
}

CCsPduConnReqResp CCsConn::TakeConnectPdu_i() {
    CCsPduConnReqResp pdu(0, 0, CS_PDU_TYPE_CONN_REQ, 15);
    m_Reader.TakeFixed(pdu);
    return pdu;
}

void CCsConn::OnRecvDisconn() {
    CCsPduDisconn pdu(0, CS_PDU_TYPE_DISCONN);
    m_Reader.TakeFixed(pdu);
    m_Liveness.Stop();
    CM_INFO_TRACE_THIS("CCsConn::OnRecvDisconn(), Normal disconnect, wReason =" << pdu.GetReason());
    Reset4Recv();
    Finish_i(pdu.GetReason());
}

// Deliberate: only reliable connections use the acknowledgement.
void CCsConn::OnRecvKeepAlive() {
    CCsPduKeepAlive pdu(0, CS_PDU_TYPE_KEEPALIVE);
    if (m_dwType != TYPE_RELIABLE) {
        m_Reader.Skip(pdu.GetFixLength());
        return;
    }
    m_Reader.TakeFixed(pdu);
    if (m_bNeedACK && m_Buffered)
        TakeAck_i(pdu.GetACK());
}

// FALSE: the acknowledgement has ended the connection, or the transport was lost inside an upcall.
BOOL CCsConn::TakeAck_i(DWORD aSeq) {
    const ICmTransport* pTransport = m_pTransport.Get();
    if (!m_Buffered->GetSendBuf().IsSent(aSeq))
        return Refuse_i("CCsConn::OnReceive, acknowledges what was not sent. m_byType=");
    DoACK(aSeq);
    return m_pTransport.Get() == pTransport;
}

// The fixed part contains the length of the PDU. FALSE: it is incomplete, or the connection has ended because of it.
BOOL CCsConn::ReadDataLength_i() {
    if (!m_Reader.IsReady()) {
        CM_INFO_TRACE_THIS("CCsConn::OnReceive, half PDU header. half_len=" << m_Reader.GetReceived()
                                                                            << " m_dwPDULen=" << m_Reader.GetLength());
        return FALSE;
    }
    if (m_Reader.ReadDataHeader(m_bNeedACK, m_dwMaxMessage))
        return TRUE;
    CM_WARNING_TRACE_THIS("CCsConn::OnReceive, message too long, len=" << m_Reader.GetDataLength() << " max=" << m_dwMaxMessage
                                                                       << " peer=" << PeerOf(m_pTransport.Get()).GetText());
    NoteFailure_i(CM_FAILURE_PROTOCOL, "the peer has announced a message that is too long");
    Finish_i(CM_ERROR_NOT_AVAILABLE);
    return FALSE;
}

// FALSE: it is incomplete, or the transport was lost inside an upcall.
BOOL CCsConn::TakeData_i(CCmTransportParameter* aPara) {
    if (!m_Reader.IsDataLengthKnown() && !ReadDataLength_i())
        return FALSE;
    if (!m_Reader.IsReady())
        return FALSE;
    const ICmTransport* pTransport = m_pTransport.Get();
    m_Reader.SkipHeader();
    if (m_bNeedACK && m_Buffered && !TakeAck_i(m_Reader.GetACK()))
        return FALSE;
    const DWORD dwReceived = GetReceivedThen_i();
    if (CountsBeforeUpcall_i())
        SetReceived_i(dwReceived);
    const CmResult rv = Deliver_i(m_Reader.GetDataLength(), aPara);
    if (m_pTransport.Get() != pTransport)
        return FALSE;
    if (rv != CM_OK) {
        Finish_i(rv);
        return FALSE;
    }
    if (m_wStatus == CS_STATUS_NOT_CONNECTED)
        return FALSE;
    if (!CountsBeforeUpcall_i())
        SetReceived_i(dwReceived);
    Reset4Recv();
    return TRUE;
}

// The counter behind the current PDU. A sender that restarts counts from 1 again, and so does the counter.
DWORD CCsConn::GetReceivedThen_i() const {
    const BOOL bRestart = m_Reader.GetType() == CS_PDU_TYPE_DATA_START;
    return (bRestart ? 0 : m_dwReceived) + m_Reader.GetLength();
}

void CCsConn::SetReceived_i(DWORD aReceived) {
    m_dwReceived = aReceived;
    if (m_Buffered)
        m_Buffered->SetReceived(m_dwReceived);
}

CmResult CCsConn::Deliver_i(DWORD aLength, CCmTransportParameter* aPara) {
    if (ICmTransportSink* pSink = m_pSink)
        return m_Reader.Take(aLength, [&](CCmMessageBlock& aPayload) { pSink->OnReceive(aPayload, this, aPara); });
    CM_WARNING_TRACE_THIS("CCsConn::OnReceive, can't get the sink,discard data, len =" << aLength);
    m_Reader.Skip(aLength);
    return CM_OK;
}

void CCsConn::ACK2PeerIfPossiable(CCmMessageBlock& aData) {
    constexpr DWORD ACK_EVERY = 10240;
    if (m_wStatus != CS_STATUS_CONNECTED)
        return;
    m_dwAckBytes += aData.GetChainedLength();
    if (m_dwAckBytes < ACK_EVERY)
        return;
    m_dwAckBytes = m_dwReceived % ACK_EVERY;  // of the receive counter, deliberately
    SendAck_i();
}
