#include "talvo/connection/protocol/buffered_sending.h"

#include <algorithm>

#include "talvo/base/trace.h"
#include "talvo/connection/protocol/gather_chain.h"

namespace talvo {

namespace {

constexpr DWORD ENOUGH_BYTES = 16384;  // for one call

}  // namespace

void CBufferedSending::SetMaxBufLen(DWORD aMaxBufLen) {
    m_dwMaxBufLen = aMaxBufLen;
    m_dwMostRoom = 0;
    SetRoom(aMaxBufLen);
}

void CBufferedSending::SetRoom(DWORD aBytes) {
    m_dwRoom = aBytes;
    m_ullAcked = 0;
    m_SendBuf.SetMaxBufLen(aBytes);
}

BOOL CBufferedSending::Grow() {
    if (m_dwRoom >= m_dwMostRoom || m_ullAcked < m_dwRoom / 2 || m_SendBuf.GetUnsent() > 0 || !m_Direct.GetPending().IsEmpty())
        return FALSE;
    SetRoom(std::min(m_dwRoom * 2, m_dwMostRoom));
    return TRUE;
}

int CBufferedSending::DoACK(DWORD aSeq) {
    const DWORD dwBefore = m_SendBuf.GetUsed();
    const int nRv = m_SendBuf.DoACK(aSeq);
    m_ullAcked += dwBefore - m_SendBuf.GetUsed();
    return nRv;
}

void CBufferedSending::OnTransportLost() {
    m_bRefused = false;
    SetRoom(m_dwMaxBufLen);
    m_SendBuf.OnTransportLost();
}

void CBufferedSending::Reset() {
    m_bRefused = false;
    SetRoom(m_dwMaxBufLen);
    m_SendBuf.Reset();
}

// Pending bytes count as if they were in the send buffer, which counts only its own.
BOOL CBufferedSending::HasRoom(DWORD aLength, BOOL aNeedACK) const {
    const DWORD dwHeader = CCsPduBase::GetFixLength(CS_PDU_TYPE_DATA_NORMAL, aNeedACK);
    return uint64_t{m_Direct.GetPending().GetLength()} + m_SendBuf.GetUsed() + dwHeader + aLength <= m_dwRoom;
}

CmResult CBufferedSending::Add(CCmMessageBlock& aData, BOOL aNeedACK) {
    const BOOL bRoom = HasRoom(aData.GetChainedLength(), aNeedACK);
    if (!m_Direct.GetPending().IsEmpty() && !bRoom)
        return CM_ERROR_PARTIAL_DATA;
    if (m_SendBuf.AddDataPDU(&aData, aNeedACK) > 0)
        return CM_OK;
    return bRoom ? CM_ERROR_OUT_OF_MEMORY : CM_ERROR_PARTIAL_DATA;
}

void CBufferedSending::AddKeepAlive() {
    if (m_Direct.GetPending().IsEmpty())
        m_SendBuf.AddKeepAlivePDU();
}

BOOL CBufferedSending::MayGather(DWORD aLength, BOOL aNeedACK) {
    if (!m_Direct.IsCorked() || aNeedACK || m_Direct.IsDatagrams() || m_SendBuf.GetCount() > 0)
        return FALSE;
    if (m_Direct.GetPending().IsRefused())
        return FALSE;
    if (!m_Direct.MayGather() || !HasRoom(aLength, aNeedACK))
        m_Direct.Flush();
    return !m_Direct.GetPending().IsRefused() && HasRoom(aLength, aNeedACK);
}

// Takes the share of the unsent bytes for that of the unsent items: the others wait for their acknowledgement.
BOOL CBufferedSending::HasFullCall() const {
    const uint64_t ullUnsent = m_SendBuf.GetUnsent();
    return ullUnsent >= ENOUGH_BYTES &&
           ullUnsent * m_SendBuf.GetCount() >= uint64_t{CGatherChain::MAX_PIECES} * m_SendBuf.GetUsed();
}

CmResult CBufferedSending::Flush(BOOL aNeedACK) {
    if (aNeedACK && m_bRefused)
        return CM_ERROR_PARTIAL_DATA;
    CmResult rv = m_Direct.Flush();
    while (rv == CM_OK && m_SendBuf.GetUnsent() > 0)
        rv = SendCurrent();
    m_bRefused = rv == CM_ERROR_PARTIAL_DATA;
    if (!aNeedACK)
        m_SendBuf.ClearAllSent();
    return rv;
}

// One send: over a stream the PDUs that may be gathered, over datagrams one.
CmResult CBufferedSending::SendCurrent() {
    CGatherChain gathered;
    CCmMessageBlock* pChain = nullptr;
    if (!m_Direct.IsDatagrams() && m_SendBuf.Gather(gathered))
        pChain = gathered.GetHead();
    else
        m_SendBuf.GetData(pChain);
    if (!pChain && m_Direct.IsDatagrams())
        return DropDatagram(m_SendBuf.GetCurrentUnsent(), CM_ERROR_OUT_OF_MEMORY);
    if (!pChain) {
        m_Direct.SetBroken();  // no other event would retry it
        return CM_ERROR_OUT_OF_MEMORY;
    }
    const DWORD dwBefore = pChain->GetChainedLength();
    const CmResult rv = m_Direct.GetTransport()->SendData(*pChain);
    if (m_Direct.IsDatagrams() && rv != CM_OK && rv != CM_ERROR_PARTIAL_DATA)
        return DropDatagram(dwBefore, rv);
    const DWORD dwSent = dwBefore - pChain->GetChainedLength();
    if (dwSent > 0)
        m_Direct.GetLiveness().OnSent();
    m_SendBuf.DataSentLen(dwSent);
    return rv;
}

// If the transport never takes one, it would block all after it.
CmResult CBufferedSending::DropDatagram(DWORD aLength, CmResult aReason) {
    CM_WARNING_TRACE_THIS("CCsConn::SendDataFromSendBuf, drop a datagram, len=" << aLength << " rv=" << aReason);
    m_SendBuf.DataSentLen(aLength);
    return CM_OK;
}

BOOL CBufferedSending::MoveToPending() {
    while (m_SendBuf.GetUnsent() > 0) {
        CCmMessageBlock* pUnsent = nullptr;
        m_SendBuf.GetData(pUnsent);
        if (!pUnsent || m_Direct.GetPending().Add(nullptr, 0, *pUnsent) != CM_OK)
            return FALSE;
        m_SendBuf.DataSentLen(pUnsent->GetChainedLength());
    }
    return TRUE;
}

}  // namespace talvo
