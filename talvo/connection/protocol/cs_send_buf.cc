#include "talvo/connection/protocol/cs_send_buf.h"

#include <algorithm>
#include <new>

#include "talvo/base/block_chain.h"
#include "talvo/base/trace.h"
#include "talvo/connection/protocol/gather_chain.h"

namespace {

DWORD s_dwLimit = CCsSendBuf::SEQ_LIMIT;

DWORD LengthOf(const CCsPduSendItem& aItem) { return aItem.GetFixLength() + aItem.GetDataLen(); }

// A data PDU with an internal copy of its payload.
template <DWORD ROOM>
class CCopiedDataT final : public CCsPduData {
public:
    CCopiedDataT(BOOL aNeedACK, DWORD aACK, DWORD aLength, BYTE aType, const CCmMessageBlock& aPayload)
        : CCsPduData(aNeedACK, aACK, aLength, aType, nullptr), m_Payload(ROOM, m_szRoom) {
        for (const CCmMessageBlock* pMb = &aPayload; pMb; pMb = pMb->GetNext())
            m_Payload.Write(pMb->GetTopLevelReadPtr(), pMb->GetTopLevelLength());
        m_pData = &m_Payload;
    }

private:
    char m_szRoom[ROOM];
    CCmMessageBlock m_Payload;
};

// Small payloads are copied: this is cheaper than sharing them. One that many connections share (WRITE_LOCKED) is copied only
// if the copy takes no more memory than a view. Null: memory ran out.
CCsPduData* MakeDataPdu(BOOL aNeedACK, DWORD aACK, DWORD aLength, BYTE aType, const CCmMessageBlock& aPayload) {
    if (aLength <= 128)
        return new (std::nothrow) CCopiedDataT<128>(aNeedACK, aACK, aLength, aType, aPayload);
    if (aLength <= 1024 && !(aPayload.GetFlag() & CCmMessageBlock::WRITE_LOCKED))
        return new (std::nothrow) CCopiedDataT<1024>(aNeedACK, aACK, aLength, aType, aPayload);
    CCmChainPtr pData = talvo::DuplicateUnread(aPayload);
    auto* pItem = pData ? new (std::nothrow) CCsPduData(aNeedACK, aACK, aLength, aType, pData.get()) : nullptr;
    if (pItem)
        pData.release();  // the item owns it
    return pItem;
}

}  // namespace

void CCsSendBuf::LimitNumbers(DWORD aLimit) { s_dwLimit = aLimit; }

// The cap keeps every sequence number, and the next one, within SEQ_LIMIT.
CCsSendBuf::CCsSendBuf(DWORD aMaxBufLen, DWORD aFirstSeq)
    : m_dwMaxBufLen(std::min(aMaxBufLen, SEQ_LIMIT - 1)),
      m_dwSeqSent(aFirstSeq - 1),
      m_dwNextSeq(aFirstSeq),
      m_dwSeqACKed(aFirstSeq - 1) {}

CCsSendBuf::~CCsSendBuf() {
    if (m_dwCount > 0)
        CM_INFO_TRACE_THIS("CCsSendBuf::~CCsSendBuf there have some pdu's ack not arrived! count =" << m_dwCount);
    FreeItemsBut(nullptr);
}

void CCsSendBuf::SetMaxBufLen(DWORD aMaxBufLen) {
    m_dwMaxBufLen = std::min(aMaxBufLen, SEQ_LIMIT - 1);
    if (m_dwMaxBufLen == 0)
        FreeItemsBut(m_dwCurrentSent > 0 ? m_pCurrent : nullptr);
}

void CCsSendBuf::Reset() {
    FreeItemsBut(nullptr);
    m_dwSeq4ACK = 0;
    m_dwACKSent = 0;
}

// aKept is null or the current item.
void CCsSendBuf::FreeItemsBut(CCsPduSendItem* aKept) {
    DropPrepared();
    CCsPduSendItem* pItem = m_pFirst;
    while (pItem) {
        CCsPduSendItem* pNext = pItem->GetNext();
        if (pItem != aKept)
            delete pItem;
        pItem = pNext;
    }
    m_pFirst = m_pLast = m_pCurrent = m_pNew = aKept;
    m_pRestart = nullptr;
    m_dwNextSeq = FIRST_SEQ;
    m_dwSeqACKed = m_dwSeqSent = FIRST_SEQ - 1;
    if (!aKept) {
        m_dwCount = m_dwUsed = m_dwUnsent = m_dwCurrentSent = 0;
        return;
    }
    aKept->SetNext(nullptr);
    m_dwCount = 1;
    m_dwUsed = LengthOf(*aKept);
    m_dwUnsent = m_dwUsed - m_dwCurrentSent;
}

BOOL CCsSendBuf::HasRoom(DWORD aFixLength, DWORD aDataLength) const {
    if (m_dwMaxBufLen < m_dwUsed)
        return FALSE;
    const DWORD dwRoom = m_dwMaxBufLen - m_dwUsed;
    return dwRoom >= aFixLength && dwRoom - aFixLength >= aDataLength;
}

DWORD CCsSendBuf::AddDataPDU(CCmMessageBlock* aMb, BOOL aNeedACK) {
    const DWORD dwLength = aMb ? aMb->GetChainedLength() : 0;
    if (dwLength == 0)
        return 0;
    const DWORD dwFixLength = CCsPduBase::GetFixLength(CS_PDU_TYPE_DATA_NORMAL, aNeedACK);
    if (!HasRoom(dwFixLength, dwLength)) {
        CM_INFO_TRACE_THIS("CCsSendBuf::AddDataPDU(), no space available");
        return 0;
    }
    const BOOL bRestart = s_dwLimit - m_dwNextSeq < dwFixLength + dwLength;
    const BYTE byType = bRestart ? CS_PDU_TYPE_DATA_START : CS_PDU_TYPE_DATA_NORMAL;
    CCsPduData* pItem = MakeDataPdu(aNeedACK, m_dwSeq4ACK, dwLength, byType, *aMb);
    if (!pItem)
        return 0;
    if (bRestart) {
        m_dwSeqBeforeRestart = m_dwNextSeq - 1;
        m_pRestart = pItem;
    }
    pItem->SetSeqStart(bRestart ? FIRST_SEQ : m_dwNextSeq);
    m_dwNextSeq = pItem->GetSeqEnd() + 1;
    Append(pItem);
    aMb->AdvanceChainedReadPtr(dwLength);
    return dwLength;
}

DWORD CCsSendBuf::AddKeepAlivePDU() {
    if (m_pCurrent)
        return 0;
    if (!HasRoom(CCsPduBase::GetFixLength(CS_PDU_TYPE_KEEPALIVE, TRUE), 0)) {
        CM_INFO_TRACE_THIS("CCsSendBuf::AddKeepAlivePDU(), SendBuf is full, Keep Alive cannot be add.");
        return 0;
    }
    return Append(new (std::nothrow) CCsPduKeepAlive(m_dwSeq4ACK));
}

DWORD CCsSendBuf::AddDisconnPDU(CmResult aReason) {
    return Append(new (std::nothrow) CCsPduDisconn(static_cast<WORD>(aReason)));
}

DWORD CCsSendBuf::Append(CCsPduSendItem* aItem) {
    if (!aItem)
        return 0;
    const DWORD dwLength = LengthOf(*aItem);
    aItem->Prepare(m_dwSeq4ACK);
    if (m_pLast)
        m_pLast->SetNext(aItem);
    else
        m_pFirst = aItem;
    m_pLast = aItem;
    ++m_dwCount;
    m_dwUsed += dwLength;
    m_dwUnsent += dwLength;
    if (!m_pNew)
        m_pNew = aItem;
    if (!m_pCurrent)
        SetCurrent(aItem);
    return dwLength;
}

void CCsSendBuf::SetCurrent(CCsPduSendItem* aItem) {
    m_pCurrent = aItem;
    m_dwCurrentSent = 0;
    if (aItem && aItem->GetACK() != m_dwSeq4ACK)
        aItem->Prepare(m_dwSeq4ACK);
}

BYTE CCsSendBuf::GetData(CCmMessageBlock*& aMb) {
    DropPrepared();
    aMb = nullptr;
    if (!m_pCurrent || !BuildPrepared())
        return NOTHING;
    aMb = &*m_pPrepared->m_FixedPart;
    return m_pCurrent->GetType();
}

// The payload itself is not given out: a caller that consumed it would leave no bytes for a repeat after a reconnection.
BOOL CCsSendBuf::BuildPrepared() {
    if (!m_pPrepared)
        m_pPrepared.reset(new (std::nothrow) CPrepared);
    if (!m_pPrepared)
        return FALSE;
    auto& [fixedPart, firstBlock, pFurtherBlocks] = *m_pPrepared;
    const DWORD dwFixLength = m_pCurrent->GetFixLength();
    fixedPart.emplace(dwFixLength, m_pCurrent->GetPrepared(), DWORD{0}, dwFixLength);
    if (const CCmMessageBlock* pData = m_pCurrent->GetData()) {
        firstBlock.emplace(*pData, pData->GetTopLevelLength());
        fixedPart->Append(&*firstBlock);
        if (pData->GetNext()) {
            pFurtherBlocks.reset(pData->GetNext()->DuplicateChained());
            if (!pFurtherBlocks)
                return FALSE;
            firstBlock->Append(pFurtherBlocks.get());
        }
    }
    fixedPart->AdvanceChainedReadPtr(m_dwCurrentSent);
    return TRUE;
}

void CCsSendBuf::DropPrepared() {
    if (!m_pPrepared)
        return;
    m_pPrepared->m_FixedPart.reset();
    m_pPrepared->m_FirstBlock.reset();
    m_pPrepared->m_pFurtherBlocks.reset();
}

DWORD CCsSendBuf::GetCurrentUnsent() const { return m_pCurrent ? LengthOf(*m_pCurrent) - m_dwCurrentSent : 0; }

BOOL CCsSendBuf::Gather(talvo::CGatherChain& aChain) {
    DWORD dwSkip = m_dwCurrentSent;
    for (CCsPduSendItem* pItem = m_pCurrent; pItem; pItem = pItem->GetNext()) {
        if (dwSkip == 0 && pItem->GetACK() != m_dwSeq4ACK)
            pItem->Prepare(m_dwSeq4ACK);
        const DWORD dwFixLength = pItem->GetFixLength();
        CCmMessageBlock mbPdu(dwFixLength, pItem->GetPrepared(), 0, dwFixLength);
        mbPdu.Append(pItem->GetData());
        if (!aChain.Add(mbPdu, dwSkip))
            break;
        dwSkip = 0;
    }
    return aChain.GetCount() > 0;
}

void CCsSendBuf::DataSentLen(DWORD aLength) {
    DropPrepared();
    while (m_pCurrent && aLength > 0) {
        const DWORD dwLeft = LengthOf(*m_pCurrent) - m_dwCurrentSent;
        const DWORD dwGone = std::min(aLength, dwLeft);
        if (m_dwCurrentSent == 0 && m_pCurrent->GetType() != CS_PDU_TYPE_DISCONN)
            m_dwACKSent = m_pCurrent->GetACK();
        aLength -= dwGone;
        m_dwUnsent -= dwGone;
        m_dwCurrentSent += dwGone;
        if (dwGone == dwLeft) {
            OnItemSent(*m_pCurrent);
            m_dwCurrentSent = 0;
            m_pCurrent = m_pCurrent->GetNext();
        }
    }
    // A fresh ACK for the next one, unless the old one is already sent.
    if (m_dwCurrentSent == 0)
        SetCurrent(m_pCurrent);
    if (m_dwMaxBufLen == 0)
        ClearAllSent();
}

void CCsSendBuf::OnItemSent(const CCsPduSendItem& aItem) {
    if (&aItem != m_pNew)
        return;
    m_pNew = aItem.GetNext();
    if (aItem.GetSeqEnd() > 0)
        m_dwSeqSent = aItem.GetSeqEnd();
}

// After a restart of the numbers the sent ones are two ranges until the peer acknowledges the new one.
BOOL CCsSendBuf::IsSent(DWORD aSeq) const {
    if (m_dwSeqSent >= m_dwSeqACKed)
        return aSeq <= m_dwSeqSent;
    return aSeq <= m_dwSeqSent || (aSeq >= m_dwSeqACKed && aSeq <= m_dwSeqBeforeRestart);
}

BOOL CCsSendBuf::IsResumePoint(DWORD aSeq) const {
    if (aSeq == m_dwSeqACKed)
        return TRUE;
    for (const CCsPduSendItem* pItem = m_pFirst; pItem != m_pNew; pItem = pItem->GetNext()) {
        if (pItem->GetSeqEnd() == aSeq && aSeq > 0)
            return TRUE;
    }
    return FALSE;
}

void CCsSendBuf::OnTransportLost() {
    DropPrepared();
    SetCurrent(m_pNew);
    m_dwUnsent = 0;
    for (const CCsPduSendItem* pItem = m_pNew; pItem; pItem = pItem->GetNext())
        m_dwUnsent += LengthOf(*pItem);
}

DWORD CCsSendBuf::GetRepeated() const {
    DWORD dwBytes = 0;
    for (const CCsPduSendItem* pItem = m_pCurrent; pItem != m_pNew; pItem = pItem->GetNext())
        dwBytes += LengthOf(*pItem);
    return dwBytes;
}

void CCsSendBuf::ClearAllSent() {
    while (m_pFirst != m_pCurrent)
        FreeFirst();
}

void CCsSendBuf::FreeFirst() {
    CCsPduSendItem* pItem = m_pFirst;
    m_pFirst = pItem->GetNext();
    if (!m_pFirst)
        m_pLast = nullptr;
    if (m_pRestart == pItem)
        m_pRestart = nullptr;
    --m_dwCount;
    m_dwUsed -= LengthOf(*pItem);
    delete pItem;
}

void CCsSendBuf::FreeAcknowledged() {
    if (m_pFirst->GetSeqEnd() > 0)
        m_dwSeqACKed = m_pFirst->GetSeqEnd();
    FreeFirst();
}

// TRUE: when the peer sent aSeq, it had not seen the restart of the numbers at aItem.
BOOL CCsSendBuf::IsOfRangeBefore(const CCsPduSendItem& aItem, DWORD aSeq) const {
    return &aItem == m_pRestart && m_dwSeqACKed > aItem.GetSeqEnd() && aSeq >= m_dwSeqACKed;
}

int CCsSendBuf::DoACK(DWORD aSeq) {
    if (m_dwCount == 0)
        return -2;
    const DWORD dwCountBefore = m_dwCount;
    if (aSeq < m_dwSeqACKed) {
        CM_WARNING_TRACE_THIS("CCsSendBuf::DoACK(), Seq# may rewind, dwSeqACKed = " << aSeq
                                                                                    << ", m_dwSeqACKed = " << m_dwSeqACKed);
        // If no restart is in progress the peer is wrong, and unacknowledged items are kept.
        while (m_pRestart && m_pFirst != m_pRestart && m_pFirst != m_pCurrent)
            FreeAcknowledged();
    }
    BOOL bBoundary = FALSE;
    while (m_pFirst) {
        const CCsPduSendItem& first = *m_pFirst;
        if (m_pFirst == m_pCurrent) {
            CM_INFO_TRACE_THIS("CCsSendBuf::DoACK handle the sending PDU");
            return 0;
        }
        const BOOL bBefore = IsOfRangeBefore(first, aSeq);
        if (bBefore || first.GetSeqEnd() > aSeq) {
            bBoundary = bBefore ? aSeq == m_dwSeqACKed : aSeq + 1 == first.GetSeqStart();
            break;
        }
        FreeAcknowledged();
    }
    return bBoundary || m_dwCount < dwCountBefore ? 0 : -1;
}

int CCsSendBuf::DoReconnACK(DWORD aSeq) {
    CM_INFO_TRACE_THIS("CCsSendBuf::DoReconnACK(), dwSeqACKed = " << aSeq);
    if (DoACK(aSeq) == -1) {
        CM_WARNING_TRACE_THIS("CCsSendBuf::DoReconnACK ack failed and return code is -1!");
        return -1;
    }
    DropPrepared();
    SetCurrent(m_pFirst);
    m_dwUnsent = m_dwUsed;
    return 0;
}
