// The sending half of the engine.
#include <algorithm>
#include <limits>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/connection/protocol/cs_conn.h"
#include "talvo/transport/datagram.h"
#include "talvo/transport/frame_header.h"
#include "talvo/transport/transport_linger.h"

static_assert(talvo::FRAME_TYPE == CS_PDU_TYPE_DATA_NORMAL);

namespace {

// TRUE: the chain fits one datagram, with a header before it.
BOOL FitsDatagram(const CCmMessageBlock& aData) {
    DWORD dwPieces = 1;
    for (const CCmMessageBlock* pMb = &aData; pMb; pMb = pMb->GetNext())
        dwPieces += pMb->GetTopLevelLength() > 0;
    return dwPieces <= talvo::MAX_DATAGRAM_PIECES;
}

}  // namespace

CmResult CCsConn::SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    m_Est.EnsureSingleThread();
    if (aPara)
        aPara->m_dwHaveSent = 0;
    if (m_wStatus == CS_STATUS_NOT_CONNECTED) {
        if (m_Buffered)
            CM_WARNING_TRACE_THIS("CCsConn::SendData send but status is wrong");
        return CM_ERROR_NOT_AVAILABLE;
    }
    const DWORD dwLength = aData.GetChainedLength();
    if (dwLength == 0)
        return CM_OK;
    if (dwLength > GetMaxMessage_i() || (m_bDatagrams && !FitsDatagram(aData)))
        return RefuseTooLong_i(dwLength);
    const CmResult rv = m_Buffered ? SendBuffered_i(aData) : SendDirect_i(aData);
    if (rv == CM_OK && aPara)
        aPara->m_dwHaveSent = dwLength;
    return rv;
}

DWORD CCsConn::GetMaxMessage_i() const {
    const DWORD dwHeader = CCsPduBase::GetFixLength(CS_PDU_TYPE_DATA_NORMAL, m_bNeedACK);
    DWORD dwMaxPdu = m_Buffered ? m_Buffered->GetMaxBufLen() : std::numeric_limits<DWORD>::max();
    if (m_bDatagrams)
        dwMaxPdu = std::min(dwMaxPdu, talvo::MAX_DATAGRAM_LENGTH);
    return std::min(m_dwMaxMessage, dwMaxPdu - std::min(dwMaxPdu, dwHeader));
}

CmResult CCsConn::RefuseTooLong_i(DWORD aLength) const {
    const char* pRaise = "a datagram takes no more";
    if (aLength > m_dwMaxMessage)
        pRaise = "option 136 (CS_OPT_MAX_MESSAGE_LEN) raises it";
    else if (m_Buffered && !m_bDatagrams)
        pRaise = "option 132 (CS_OPT_MAX_BUFF_LEN) raises it";
    CM_ERROR_TRACE_THIS("CCsConn::SendData, message too long, len=" << aLength << " max=" << GetMaxMessage_i() << ", "
                                                                    << pRaise);
    return CM_ERROR_INVALID_ARG;
}

// During the handshake and while corked, data only waits: the connect PDUs must go first, other data leaves together.
CmResult CCsConn::SendBuffered_i(CCmMessageBlock& aData) {
    const BOOL bUp = m_wStatus == CS_STATUS_CONNECTED;
    const BOOL bCorked = m_Direct.IsCorked();
    if (bUp && m_Buffered->MayGather(aData.GetChainedLength(), m_bNeedACK))
        return m_Direct.GatherData(aData, m_bNeedACK);
    const BOOL bFlushed = bUp && !bCorked && SendDataFromSendBuf() == CM_OK;
    CmResult rv = AddToSendBuf_i(aData);
    if (rv == CM_ERROR_PARTIAL_DATA && bCorked && bUp && SendDataFromSendBuf() == CM_OK)
        rv = AddToSendBuf_i(aData);
    if (rv == CM_ERROR_PARTIAL_DATA && m_wStatus == CS_STATUS_CONNECTED && m_Buffered->Grow())
        rv = AddToSendBuf_i(aData);
    if (rv == CM_ERROR_PARTIAL_DATA) {
        CM_INFO_TRACE_THIS("CCsConn::SendData(), not enough rooms for the aData");
        m_bNeedOnSend = TRUE;
    }
    if (rv != CM_OK)
        return rv;
    // While corked, bytes that fill a call do not wait for more.
    if (bFlushed || (bCorked && bUp && m_Buffered->HasFullCall()))
        SendDataFromSendBuf();
    return CM_OK;
}

CmResult CCsConn::AddToSendBuf_i(CCmMessageBlock& aData) {
    if (m_wStatus == CS_STATUS_NOT_CONNECTED)
        return CM_ERROR_OUT_OF_MEMORY;  // an earlier send has ended the connection
    return m_Buffered->Add(aData, m_bNeedACK);
}

CmResult CCsConn::SendDirect_i(CCmMessageBlock& aData) {
    if (m_wStatus == CS_STATUS_RECONNECTING || !m_pTransport)
        return CM_ERROR_NOT_AVAILABLE;
    return EndIfBroken_i(m_Direct.SendData(aData));
}

CmResult CCsConn::SendFrames(CCmMessageBlock& aFrames, const talvo::IFrameLengths& aLengths, DWORD& aTaken) {
    m_Est.EnsureSingleThread();
    aTaken = 0;
    if (m_wStatus != CS_STATUS_CONNECTED || !m_pTransport)
        return CM_ERROR_NOT_AVAILABLE;
    if (m_Buffered && m_Buffered->GetUnsent() > 0) {
        if (const CmResult rv = SendDataFromSendBuf(); rv != CM_OK)
            return rv;
    }
    return EndIfBroken_i(m_Direct.SendFrames(aFrames, aLengths, aTaken));
}

CmResult CCsConn::EndIfBroken_i(CmResult aResult) {
    if (m_Direct.IsBroken())
        Finish_i(CM_ERROR_OUT_OF_MEMORY);
    return aResult;
}

// Refused bytes wait for the transport.
CmResult CCsConn::Uncork_i() {
    if (m_wStatus == CS_STATUS_CONNECTED)
        SendDataFromSendBuf();
    return CM_OK;
}

CmResult CCsConn::SendDataFromSendBuf() {
    if (!m_pTransport)
        return CM_ERROR_FAILURE;
    return m_Buffered ? EndIfBroken_i(m_Buffered->Flush(m_bNeedACK)) : m_Direct.Flush();
}

CmResult CCsConn::SendConnReq() {
    if (!m_pTransport)
        return CM_ERROR_NOT_AVAILABLE;
    if (m_dwConnReq == 0) {
        CCmMessageBlock block(sizeof m_szConnReq, m_szConnReq);
        EncodeConnectPdu_i(CS_PDU_TYPE_CONN_REQ, block);
        m_dwConnReq = block.GetTopLevelLength();
    }
    return SendConnectPdu_i(CCmMessageBlock(m_dwConnReq, m_szConnReq, CCmMessageBlock::DONT_DELETE, m_dwConnReq));
}

CmResult CCsConn::SendConnResp() {
    if (!m_pTransport)
        return CM_ERROR_NOT_AVAILABLE;
    char szPdu[sizeof m_szConnReq] = {};
    CCmMessageBlock block(sizeof szPdu, szPdu);
    EncodeConnectPdu_i(CS_PDU_TYPE_CONN_RESP, block);
    return SendConnectPdu_i(block);
}

void CCsConn::EncodeConnectPdu_i(BYTE aType, CCmMessageBlock& aMb) const {
    CCsPduConnReqResp(m_dwReceived, m_wChannel, aType, m_byConnType).Encode(aMb);
}

// A peer that repeats its request while data waits on a stream has its answer already; another one would be inside a partly
// sent PDU.
CmResult CCsConn::SendConnectPdu_i(const CCmMessageBlock& aPdu) {
    if (m_wStatus == CS_STATUS_CONNECTED && !m_bDatagrams) {
        if (const CmResult rv = SendDataFromSendBuf(); rv != CM_OK)
            return rv;
    }
    return m_Direct.SendConnectPdu(aPdu);
}

CmResult CCsConn::SendKeepAlive() {
    if (m_wStatus != CS_STATUS_CONNECTED || !m_pTransport)
        return CM_ERROR_NOT_AVAILABLE;
    if (m_Buffered)
        m_Buffered->AddKeepAlive();
    if (m_Buffered || !m_Direct.GetPending().IsEmpty())
        return SendDataFromSendBuf();
    return EndIfBroken_i(m_Direct.SendPdu(CCsPduKeepAlive(0, CS_PDU_TYPE_KEEPALIVE)));
}

CmResult CCsConn::SendDisconn(CmResult aReason) {
    if (!m_pTransport)
        return CM_ERROR_NOT_AVAILABLE;
    if (!m_Buffered)
        return EndIfBroken_i(m_Direct.SendPdu(CCsPduDisconn(static_cast<WORD>(aReason), CS_PDU_TYPE_DISCONN)));
    m_Buffered->AddDisconn(aReason);
    return SendDataFromSendBuf();
}

// Bytes that the transport has not taken, the disconnect PDU last, are sent when there is room. A proxy has waited for its data
// before, but not for that PDU. FALSE: there are none, or the
// peer has no response yet and does not wait for data.
BOOL CCsConn::LetLinger_i() {
    if (m_bDatagrams || m_wStatus != CS_STATUS_CONNECTED)
        return FALSE;
    if (m_Buffered && !m_Buffered->MoveToPending())
        return FALSE;
    return talvo::CTransportLinger::Begin(*m_pTransport, m_Direct.GetPending().TakeAll());
}

int CCsConn::DoACK(DWORD aSeq) {
    const int nRv = m_Buffered ? m_Buffered->DoACK(aSeq) : -2;
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
    if (m_Buffered)
        m_Buffered->OnRoom();
    if (m_wStatus != CS_STATUS_CONNECTED) {
        m_Direct.Flush();  // the rest of a connect PDU
        return;
    }
    SendDataFromSendBuf();
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
        dwBelow = m_dwLost;
    return dwBelow + m_Direct.GetPending().GetLength() + (m_Buffered ? m_Buffered->GetUnsent() : 0);
}
