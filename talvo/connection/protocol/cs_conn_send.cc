// The sending half of the engine.
#include <algorithm>
#include <limits>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/connection/protocol/cs_conn.h"
#include "talvo/connection/protocol/gather_chain.h"
#include "talvo/transport/transport_linger.h"
#include "talvo/transport/udp/datagram_sender.h"

namespace {

constexpr int CONNECT_TRIES = 3;
constexpr DWORD ENOUGH_BYTES = 16384;   // for one call
constexpr DWORD PENDING_LIMIT = 65536;  // bytes gathered without a send buffer while corked

// Whether a datagram can be made of the chain with a header before it.
BOOL FitsDatagram(const CCmMessageBlock& aData) {
    DWORD dwPieces = 1;
    for (const CCmMessageBlock* pMb = &aData; pMb; pMb = pMb->GetNext())
        dwPieces += pMb->GetTopLevelLength() > 0;
    return dwPieces <= talvo::MAX_DATAGRAM_PIECES;
}

// What goes before the payload of a data PDU.
class CDataHeader {
public:
    CDataHeader(BOOL aWithAck, DWORD aPayload) : m_Block(sizeof m_szBytes, m_szBytes) {
        CCsPduData(aWithAck, 0, aPayload, CS_PDU_TYPE_DATA_NORMAL, nullptr).EncodeWithOutData(m_Block);
    }
    const CCmMessageBlock& GetBlock() const { return m_Block; }

private:
    char m_szBytes[9] = {};
    CCmMessageBlock m_Block;
};

}  // namespace

CmResult CCsConn::SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    m_Est.EnsureSingleThread();
    if (aPara)
        aPara->m_dwHaveSent = 0;
    if (m_wStatus == CS_STATUS_NOT_CONNECTED) {
        if (m_dwMaxBufLen > 0)
            CM_WARNING_TRACE_THIS("CCsConn::SendData send but status is wrong");
        return CM_ERROR_NOT_AVAILABLE;
    }
    const DWORD dwLength = aData.GetChainedLength();
    if (dwLength == 0)
        return CM_OK;
    if (dwLength > GetMaxMessage_i() || (m_bDatagrams && !FitsDatagram(aData)))
        return RefuseTooLong_i(dwLength);
    const CmResult rv = m_dwMaxBufLen > 0 ? SendBuffered_i(aData) : SendUnbuffered_i(aData);
    if (rv == CM_OK && aPara)
        aPara->m_dwHaveSent = dwLength;
    return rv;
}

DWORD CCsConn::GetMaxMessage_i() const {
    const DWORD dwHeader = CCsPduBase::GetFixLength(CS_PDU_TYPE_DATA_NORMAL, m_bNeedACK);
    DWORD dwMaxPdu = std::numeric_limits<DWORD>::max();
    if (m_dwMaxBufLen > 0)
        dwMaxPdu = m_dwMaxBufLen;
    if (m_bDatagrams)
        dwMaxPdu = std::min(dwMaxPdu, talvo::MAX_DATAGRAM_LENGTH);
    return std::min(m_dwMaxMessage, dwMaxPdu - std::min(dwMaxPdu, dwHeader));
}

CmResult CCsConn::RefuseTooLong_i(DWORD aLength) const {
    const char* pRaise = "a datagram takes no more";
    if (aLength > m_dwMaxMessage)
        pRaise = "option 136 (CS_OPT_MAX_MESSAGE_LEN) raises it";
    else if (m_dwMaxBufLen > 0 && !m_bDatagrams)
        pRaise = "option 132 (CS_OPT_MAX_BUFF_LEN) raises it";
    CM_ERROR_TRACE_THIS("CCsConn::SendData, message too long, len=" << aLength << " max=" << GetMaxMessage_i() << ", "
                                                                    << pRaise);
    return CM_ERROR_INVALID_ARG;
}

// Until the handshake is over and while corked, data only waits: the connect response has to go first, the others together.
CmResult CCsConn::SendBuffered_i(CCmMessageBlock& aData) {
    if (MayGather_i(aData.GetChainedLength()))
        return GatherFrame_i(aData);
    const BOOL bHandshake = m_wStatus == CS_STATUS_HANDSHAKE;
    const BOOL bSend = !bHandshake && !m_bCorked;
    const BOOL bFlushed = bSend && SendDataFromSendBuf() == CM_OK;
    CmResult rv = AddToSendBuf_i(aData);
    if (rv == CM_ERROR_PARTIAL_DATA && m_bCorked && !bHandshake && SendDataFromSendBuf() == CM_OK)
        rv = AddToSendBuf_i(aData);
    if (rv == CM_ERROR_PARTIAL_DATA) {
        CM_INFO_TRACE_THIS("CCsConn::SendData(), not enough rooms for the aData");
        m_bNeedOnSend = TRUE;
    }
    if (rv != CM_OK)
        return rv;
    // While corked, what makes a full call anyway does not wait for more.
    const BOOL bEnough = m_SendBuf.GetUnsent() >= ENOUGH_BYTES && m_SendBuf.GetCount() >= talvo::CGatherChain::MAX_PIECES;
    if (bFlushed || (m_bCorked && !bHandshake && bEnough))
        SendDataFromSendBuf();
    return CM_OK;
}

// While corked, a PDU that nobody will acknowledge needs no place in the send buffer as long as none is there.
BOOL CCsConn::MayGather_i(DWORD aLength) {
    if (!m_bCorked || m_bNeedACK || m_bDatagrams || m_wStatus != CS_STATUS_CONNECTED)
        return FALSE;
    const BOOL bFull = m_Pending.GetLength() >= PENDING_LIMIT || !HasRoom_i(aLength);
    if (bFull && m_SendBuf.GetCount() == 0 && !m_bRefused)
        FlushPending_i();
    return m_SendBuf.GetCount() == 0 && !m_bRefused && HasRoom_i(aLength);
}

// What is pending counts as if it were in the send buffer, which looks at itself alone.
BOOL CCsConn::HasRoom_i(DWORD aLength) const {
    const DWORD dwHeader = CCsPduBase::GetFixLength(CS_PDU_TYPE_DATA_NORMAL, m_bNeedACK);
    return uint64_t{m_Pending.GetLength()} + m_SendBuf.GetUsed() + dwHeader + aLength <= m_dwMaxBufLen;
}

CmResult CCsConn::AddToSendBuf_i(CCmMessageBlock& aData) {
    if (m_wStatus == CS_STATUS_NOT_CONNECTED)
        return CM_ERROR_OUT_OF_MEMORY;  // a send before has ended the connection
    const BOOL bRoom = HasRoom_i(aData.GetChainedLength());
    if (m_Pending.GetLength() > 0 && !bRoom)
        return CM_ERROR_PARTIAL_DATA;
    if (m_SendBuf.AddDataPDU(&aData, m_bNeedACK) > 0)
        return CM_OK;
    return bRoom ? CM_ERROR_OUT_OF_MEMORY : CM_ERROR_PARTIAL_DATA;
}

CmResult CCsConn::GatherFrame_i(CCmMessageBlock& aData) {
    const DWORD dwLength = aData.GetChainedLength();
    const CDataHeader header(m_bNeedACK, dwLength);
    const CmResult rv = m_Pending.Add(header.GetBlock().GetTopLevelReadPtr(), header.GetBlock().GetTopLevelLength(), aData);
    if (rv == CM_OK)
        aData.AdvanceChainedReadPtr(dwLength);
    return rv;
}

CmResult CCsConn::SendUnbuffered_i(CCmMessageBlock& aData) {
    if (m_wStatus == CS_STATUS_RECONNECTING || !m_pTransport)
        return CM_ERROR_NOT_AVAILABLE;
    const BOOL bGather = m_bCorked && !m_bRefused && m_Pending.GetLength() < PENDING_LIMIT;
    if (!bGather) {
        if (const CmResult rv = FlushPending_i(); rv != CM_OK)
            return rv;
    }
    if (m_bCorked)
        return GatherFrame_i(aData);
    const CmResult rv = SendFrame_i(CDataHeader(TRUE, aData.GetChainedLength()).GetBlock(), aData);
    return rv == CM_ERROR_OUT_OF_MEMORY ? rv : CM_OK;
}

// Sends a frame behind what is pending. What the transport does not take is pending then.
CmResult CCsConn::SendFrame_i(const CCmMessageBlock& aHeader, CCmMessageBlock& aPayload) {
    const CmResult rv = m_Pending.Send(*m_pTransport, aHeader.GetTopLevelReadPtr(), aHeader.GetTopLevelLength(), aPayload);
    m_bRefused = !m_Pending.IsEmpty();
    if (rv == CM_OK)
        Sent_i();
    if (rv == CM_ERROR_OUT_OF_MEMORY && !m_bDatagrams)
        OnDisconnect(rv, m_pTransport.Get());  // a part of it may have gone
    return rv;
}

CmResult CCsConn::FlushPending_i() {
    if (m_Pending.IsEmpty())
        return CM_OK;
    const CmResult rv = m_Pending.Flush(*m_pTransport);
    m_bRefused = !m_Pending.IsEmpty();
    if (rv == CM_OK)
        Sent_i();
    return rv;
}

CmResult CCsConn::Uncork_i() {
    if (!m_pTransport || m_wStatus != CS_STATUS_CONNECTED)
        return CM_OK;
    if (m_dwMaxBufLen > 0)
        SendDataFromSendBuf();
    else
        FlushPending_i();
    return CM_OK;  // what was refused waits for the transport
}

CmResult CCsConn::SendDataFromSendBuf() {
    if (!m_pTransport)
        return CM_ERROR_FAILURE;
    CmResult rv = FlushPending_i();
    while (rv == CM_OK && m_SendBuf.GetUnsent() > 0)
        rv = SendCurrent_i();
    if (!m_bNeedACK)
        m_SendBuf.ClearAllSent();
    return rv;
}

// One send: over a stream as many PDUs as it may gather, over datagrams one.
CmResult CCsConn::SendCurrent_i() {
    talvo::CGatherChain gathered;
    CCmMessageBlock* pChain = nullptr;
    if (!m_bDatagrams && m_SendBuf.Gather(gathered))
        pChain = gathered.GetHead();
    else
        m_SendBuf.GetData(pChain);
    if (!pChain)
        return NoMemoryToSend_i();
    const DWORD dwBefore = pChain->GetChainedLength();
    const CmResult rv = m_pTransport->SendData(*pChain);
    if (m_bDatagrams && rv != CM_OK && rv != CM_ERROR_PARTIAL_DATA)
        return DropDatagram_i(dwBefore, rv);
    const DWORD dwSent = dwBefore - pChain->GetChainedLength();
    if (dwSent > 0)
        Sent_i();
    m_SendBuf.DataSentLen(dwSent);
    return rv;
}

// Nothing would bring it another try.
CmResult CCsConn::NoMemoryToSend_i() {
    if (m_bDatagrams)
        return DropDatagram_i(m_SendBuf.GetCurrentUnsent(), CM_ERROR_OUT_OF_MEMORY);
    OnDisconnect(CM_ERROR_OUT_OF_MEMORY, m_pTransport.Get());
    return CM_ERROR_OUT_OF_MEMORY;
}

// One that the transport will not take would hold up all behind it.
CmResult CCsConn::DropDatagram_i(DWORD aLength, CmResult aReason) {
    CM_WARNING_TRACE_THIS("CCsConn::SendDataFromSendBuf, drop a datagram, len=" << aLength << " rv=" << aReason);
    m_SendBuf.DataSentLen(aLength);
    return CM_OK;
}

CmResult CCsConn::SendConnReq() {
    if (!m_pTransport)
        return CM_ERROR_NOT_AVAILABLE;
    if (m_dwConnReq == 0) {
        CCmMessageBlock block(sizeof m_szConnReq, m_szConnReq);
        CCsPduConnReqResp(m_dwReceived, m_wChannel, CS_PDU_TYPE_CONN_REQ, m_byConnType).Encode(block);
        m_dwConnReq = block.GetTopLevelLength();
    }
    return SendConnectPdu_i(CCmMessageBlock(m_dwConnReq, m_szConnReq, CCmMessageBlock::DONT_DELETE, m_dwConnReq));
}

CmResult CCsConn::SendConnResp() {
    if (!m_pTransport)
        return CM_ERROR_NOT_AVAILABLE;
    char szPdu[CCsPduBase::MAX_FIX_LENGTH] = {};
    CCmMessageBlock block(sizeof szPdu, szPdu);
    CCsPduConnReqResp(m_dwReceived, m_wChannel, CS_PDU_TYPE_CONN_RESP, m_byConnType).Encode(block);
    return SendConnectPdu_i(block);
}

// On a stream nobody would send it again, so what the last try leaves is pending.
CmResult CCsConn::SendConnectPdu_i(const CCmMessageBlock& aPdu) {
    CCmMessageBlock copy(aPdu, aPdu.GetTopLevelLength());
    // A peer that asks again while data waits on a stream has been answered; the answer would stand inside a begun PDU.
    const BOOL bAgain = m_wStatus == CS_STATUS_CONNECTED && !m_bDatagrams;
    CmResult rv = bAgain ? SendDataFromSendBuf() : FlushPending_i();
    if (bAgain && rv != CM_OK)
        return rv;
    for (int i = 0; i < CONNECT_TRIES && (i == 0 || rv != CM_OK); ++i)
        rv = m_Pending.IsEmpty() ? m_pTransport->SendData(copy) : CM_ERROR_PARTIAL_DATA;
    if (rv == CM_OK)
        Sent_i();
    else if (!m_bDatagrams && copy.GetTopLevelLength() > 0) {
        if (m_Pending.Add(nullptr, 0, copy) != CM_OK)
            return CM_ERROR_OUT_OF_MEMORY;
        m_bRefused = TRUE;
    }
    return rv;
}

CmResult CCsConn::SendKeepAlive() {
    if (m_wStatus != CS_STATUS_CONNECTED || !m_pTransport)
        return CM_ERROR_NOT_AVAILABLE;
    if (m_dwMaxBufLen > 0) {
        if (m_Pending.IsEmpty())
            m_SendBuf.AddKeepAlivePDU();
        return SendDataFromSendBuf();
    }
    if (!m_Pending.IsEmpty())
        return FlushPending_i();
    char szPdu[5] = {};
    CCmMessageBlock block(sizeof szPdu, szPdu);
    CCsPduKeepAlive(0, CS_PDU_TYPE_KEEPALIVE).Encode(block);
    CCmMessageBlock nothing(DWORD{0});
    return SendFrame_i(block, nothing);
}

CmResult CCsConn::SendDisconn(CmResult aReason) {
    if (!m_pTransport)
        return CM_ERROR_NOT_AVAILABLE;
    if (m_dwMaxBufLen > 0) {
        m_SendBuf.AddDisconnPDU(aReason);
        return SendDataFromSendBuf();
    }
    char szPdu[3] = {};
    CCmMessageBlock block(sizeof szPdu, szPdu);
    CCsPduDisconn(static_cast<WORD>(aReason), CS_PDU_TYPE_DISCONN).Encode(block);
    CCmMessageBlock nothing(DWORD{0});
    return SendFrame_i(block, nothing);  // behind what is pending
}

// What the transport has not taken, the farewell last, goes out when there is room. FALSE: there is nothing, or the peer has
// not been told that it is connected and does not wait for anything.
BOOL CCsConn::LetLinger_i() {
    if (m_bDatagrams || m_wStatus != CS_STATUS_CONNECTED)
        return FALSE;
    while (m_SendBuf.GetUnsent() > 0) {
        CCmMessageBlock* pUnsent = nullptr;
        m_SendBuf.GetData(pUnsent);
        if (!pUnsent || m_Pending.Add(nullptr, 0, *pUnsent) != CM_OK)
            return FALSE;
        m_SendBuf.DataSentLen(pUnsent->GetChainedLength());
    }
    CCmChainPtr pRest = m_Pending.TakeAll();
    return (pRest || !IsLayered_i()) && talvo::CTransportLinger::Begin(*m_pTransport, std::move(pRest));
}

int CCsConn::DoACK(DWORD aSeq) {
    const int nRv = m_SendBuf.DoACK(aSeq);
    if (m_pSink && m_bNeedOnSend) {
        m_bNeedOnSend = FALSE;
        m_pSink->OnSend(this);
    }
    return nRv;
}

void CCsConn::OnSend(ICmTransport* aTrpt, CCmTransportParameter*) {
    m_Est.EnsureSingleThread();
    if (aTrpt != m_pTransport.Get())
        return;
    if (m_wStatus != CS_STATUS_CONNECTED) {
        FlushPending_i();  // the rest of a connect PDU
        return;
    }
    if (m_dwMaxBufLen > 0)
        SendDataFromSendBuf();
    else
        FlushPending_i();
    if (!m_bNeedACK)
        m_bNeedOnSend = FALSE;
    if (m_pSink)
        m_pSink->OnSend(this);
}

void CCsConn::StartData_i() {
    if (SendDataFromSendBuf() == CM_OK && m_bNeedOnSend && m_pSink) {
        m_bNeedOnSend = FALSE;
        m_pSink->OnSend(this);
    }
}

DWORD CCsConn::GetUnsent_i() {
    DWORD dwBelow = 0;
    if (GetTransportOption_i(CM_OPT_TRANSPORT_UNACKNOWLEDGED, &dwBelow) != CM_OK)
        dwBelow = 0;
    return dwBelow + m_Pending.GetLength() + m_SendBuf.GetUnsent();
}
