#include "talvo/connection/protocol/frame_queue.h"

#include <algorithm>
#include <new>
#include <utility>

namespace talvo {

namespace {

constexpr DWORD MAX_COPIED = 1024;  // bytes of payload up to which a copy is cheaper than a view
constexpr DWORD MIN_BLOCK = 1024;   // what frames share grows with what waits
constexpr DWORD MAX_BLOCK = CCmDataBlock::BURST_SIZE;
constexpr DWORD MIN_REST = 64;    // less space than this is not worth a view
constexpr DWORD MAX_PIECES = 64;  // what a stream transport gathers; a longer chain would wait for an OnSend without need

// Counts the pieces of a chain, up to one more than MAX_PIECES, and the bytes in the first MAX_PIECES.
DWORD CountPieces(const CCmMessageBlock* aChain, DWORD& aBytes) {
    DWORD dwPieces = 0;
    aBytes = 0;
    for (; aChain && dwPieces <= MAX_PIECES; aChain = aChain->GetNext()) {
        if (aChain->GetTopLevelLength() == 0)
            continue;
        if (++dwPieces <= MAX_PIECES)
            aBytes += aChain->GetTopLevelLength();
    }
    return dwPieces;
}

// Views on the unread bytes alone: of foreign memory no more is copied than has to be sent, and there is no space behind them
// that the queue might take for its own.
CCmMessageBlock* DuplicateUnread(const CCmMessageBlock& aChain) {
    CCmMessageBlock* pHead = nullptr;
    CCmMessageBlock* pTail = nullptr;
    for (const CCmMessageBlock* pMb = &aChain; pMb; pMb = pMb->GetNext()) {
        if (pMb->GetTopLevelLength() == 0)
            continue;
        CCmMessageBlock* pView = CCmMessageBlock(*pMb, pMb->GetTopLevelLength()).DuplicateTopLevel();
        if (!pView) {
            if (pHead)
                pHead->DestroyChained();
            return nullptr;
        }
        pTail ? pTail->Append(pView) : void(pHead = pView);
        pTail = pView;
    }
    return pHead;
}

}  // namespace

CmResult CFrameQueue::Send(ICmTransport& aTransport, const void* aHeader, DWORD aHeaderLen, CCmMessageBlock& aPayload) {
    const DWORD dwPayload = aPayload.GetChainedLength();
    DWORD dwBytes = 0;
    const BOOL bManyPieces = !m_bDatagrams && CountPieces(&aPayload, dwBytes) >= MAX_PIECES;
    CmResult rv = CM_OK;
    if (!IsEmpty() || bManyPieces) {
        rv = Add(aHeader, aHeaderLen, aPayload);
        if (rv == CM_OK)
            rv = Flush(aTransport);
    } else {
        // The header stands before the caller's chain for this one call; the chain's own links stay as they are.
        CCmMessageBlock front(aHeaderLen, static_cast<const char*>(aHeader), CCmMessageBlock::DONT_DELETE, aHeaderLen);
        front.Append(&aPayload);
        CCmTransportParameter para;
        rv = aTransport.SendData(front, &para);
        if (!IsSettled_i(rv) && Add(front.GetTopLevelReadPtr(), front.GetTopLevelLength(), aPayload) != CM_OK)
            rv = CM_ERROR_OUT_OF_MEMORY;
    }
    aPayload.AdvanceChainedReadPtr(dwPayload);
    return rv;
}

// Whether a transport that gave aResult has no more to do with what it was given.
BOOL CFrameQueue::IsSettled_i(CmResult aResult) const {
    return aResult == CM_OK || (m_bDatagrams && aResult != CM_ERROR_PARTIAL_DATA);
}

CmResult CFrameQueue::Add(const void* aHeader, DWORD aHeaderLen, const CCmMessageBlock& aPayload) {
    const DWORD dwPayload = aPayload.GetChainedLength();
    const BOOL bCopy = dwPayload <= MAX_COPIED;
    CCmMessageBlock* pViews = nullptr;
    if (!bCopy && !(pViews = DuplicateUnread(aPayload)))
        return CM_ERROR_OUT_OF_MEMORY;
    const DWORD dwWritten = aHeaderLen + (bCopy ? dwPayload : 0);
    CCmMessageBlock* pBlock = dwWritten > 0 ? SpaceFor_i(dwWritten) : nullptr;
    if (dwWritten > 0 && !pBlock) {
        if (pViews)
            pViews->DestroyChained();
        return CM_ERROR_OUT_OF_MEMORY;
    }
    if (pBlock)
        pBlock->Write(aHeader, aHeaderLen);
    for (const CCmMessageBlock* pMb = &aPayload; pBlock && bCopy && pMb; pMb = pMb->GetNext())
        pBlock->Write(pMb->GetTopLevelReadPtr(), pMb->GetTopLevelLength());
    m_dwLength += aHeaderLen + dwPayload;
    if (pViews)
        LinkViews_i(pViews);
    return CM_OK;
}

// The last block, with so much space; a datagram has its blocks to itself. Null: memory ran out.
CCmMessageBlock* CFrameQueue::SpaceFor_i(DWORD aCount) {
    if (!m_bDatagrams && m_pTail && m_pTail->GetTopLevelSpace() >= aCount)
        return m_pTail;
    const DWORD dwSize = m_bDatagrams ? aCount : std::max(aCount, std::clamp(m_dwLength, MIN_BLOCK, MAX_BLOCK));
    auto* pBlock = new (std::nothrow) CCmMessageBlock(dwSize, nullptr, CCmMessageBlock::DUPLICATED);
    if (!pBlock || pBlock->GetTopLevelSpace() < aCount) {
        delete pBlock;
        return nullptr;
    }
    if (m_bDatagrams)
        pBlock->LockReading();
    Link_i(pBlock);
    return pBlock;
}

void CFrameQueue::Link_i(CCmMessageBlock* aChain) {
    if (m_pTail)
        m_pTail->Append(aChain);
    else
        m_pHead = aChain;
    for (m_pTail = aChain; m_pTail->GetNext(); m_pTail = m_pTail->GetNext()) {
    }
}

// What the shared block before the views has left is used behind them.
void CFrameQueue::LinkViews_i(CCmMessageBlock* aViews) {
    const BOOL bUseRest = !m_bDatagrams && m_pTail && m_pTail->GetTopLevelSpace() >= MIN_REST;
    CCmMessageBlock* pRest = bUseRest ? m_pTail->DuplicateTopLevel() : nullptr;
    Link_i(aViews);
    if (!pRest)
        return;
    pRest->AdvanceTopLevelReadPtr(pRest->GetTopLevelLength());
    Link_i(pRest);
}

CmResult CFrameQueue::Flush(ICmTransport& aTransport) {
    while (!IsEmpty()) {
        if (const CmResult rv = SendPart_i(aTransport); rv != CM_OK)
            return rv;
    }
    return CM_OK;
}

// The cut lies between two blocks, where it costs nothing and leaves the last block what it is.
CmResult CFrameQueue::SendPart_i(ICmTransport& aTransport) {
    const DWORD dwPart = m_bDatagrams ? FirstDatagram_i() : FirstPieces_i();
    CCmMessageBlock* pRest = dwPart < m_dwLength ? m_pHead->Disjoint(dwPart) : nullptr;
    CCmTransportParameter para;
    const CmResult rv = aTransport.SendData(*m_pHead, &para);
    if (IsSettled_i(rv))
        m_pHead->AdvanceChainedReadPtr(dwPart);
    m_dwLength -= dwPart - m_pHead->GetChainedLength();
    m_pHead->Append(pRest);
    if (IsEmpty())
        Clear();
    else
        m_pHead = m_pHead->ReclaimGarbage();
    return IsSettled_i(rv) ? CM_OK : rv;
}

DWORD CFrameQueue::FirstPieces_i() const {
    DWORD dwBytes = 0;
    CountPieces(m_pHead, dwBytes);
    return dwBytes;
}

DWORD CFrameQueue::FirstDatagram_i() const {
    DWORD dwBytes = m_pHead->GetTopLevelLength();
    for (const CCmMessageBlock* pMb = m_pHead->GetNext(); pMb; pMb = pMb->GetNext()) {
        if (pMb->GetFlag() & CCmMessageBlock::READ_LOCKED)
            break;
        dwBytes += pMb->GetTopLevelLength();
    }
    return dwBytes;
}

void CFrameQueue::Clear() {
    if (CCmMessageBlock* pAll = TakeAll())
        pAll->DestroyChained();
}

CCmMessageBlock* CFrameQueue::TakeAll() {
    m_pTail = nullptr;
    m_dwLength = 0;
    return std::exchange(m_pHead, nullptr);
}

}  // namespace talvo
