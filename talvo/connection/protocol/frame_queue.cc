#include "talvo/connection/protocol/frame_queue.h"

#include <algorithm>
#include <utility>

#include "talvo/transport/network_buffers.h"

namespace talvo {

namespace {

constexpr DWORD MAX_COPIED = 1024;  // bytes of payload up to which a copy is cheaper than a view
constexpr DWORD MIN_BLOCK = 1024;   // the shared block grows with the queue
constexpr DWORD MAX_BLOCK = CCmDataBlock::BURST_SIZE;
constexpr DWORD MIN_REST = 64;  // less space than this is not worth a view

// A longer chain would wait for an OnSend needlessly.
constexpr DWORD MAX_PIECES = CNetworkBuffers::MAX_PIECES;

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
        // The header precedes the caller's chain for this one call; the chain's own links do not change.
        CCmMessageBlock front(aHeaderLen, static_cast<const char*>(aHeader), CCmMessageBlock::DONT_DELETE, aHeaderLen);
        front.Append(&aPayload);
        CCmTransportParameter para;
        rv = aTransport.SendData(front, &para);
        if (!IsSettled_i(rv) && Add(front.GetTopLevelReadPtr(), front.GetTopLevelLength(), aPayload) != CM_OK)
            rv = CM_ERROR_OUT_OF_MEMORY;
    }
    aPayload.AdvanceChainedReadPtr(dwPayload);
    m_bRefused = !IsEmpty();
    return rv;
}

CmResult CFrameQueue::SendFrames(ICmTransport& aTransport, CCmMessageBlock& aFrames, const IFrameLengths& aLengths,
                                 DWORD& aTaken) {
    aTaken = 0;
    if (const CmResult rv = IsEmpty() ? CM_OK : Flush(aTransport); rv != CM_OK)
        return rv;
    CCmTransportParameter para;
    const CmResult rv = aTransport.SendData(aFrames, &para);
    if (rv == CM_OK) {
        aTaken = aLengths.GetCount();
        return rv;
    }
    DWORD dwRest = 0;
    aTaken = aLengths.CountWithin(para.m_dwHaveSent, dwRest);
    if (dwRest == 0)
        return rv;
    ++aTaken;
    return KeepFirst_i(aFrames, dwRest) == CM_OK ? rv : CM_ERROR_OUT_OF_MEMORY;
}

// The first aCount unread bytes of aChain are refused.
CmResult CFrameQueue::KeepFirst_i(const CCmMessageBlock& aChain, DWORD aCount) {
    CmResult rv = CM_OK;
    for (const CCmMessageBlock* pMb = &aChain; pMb && aCount > 0 && rv == CM_OK; pMb = pMb->GetNext()) {
        const CCmMessageBlock part(*pMb, aCount);
        aCount -= part.GetTopLevelLength();
        if (part.GetTopLevelLength() > 0)
            rv = Add(nullptr, 0, part);
    }
    m_bRefused = !IsEmpty();
    return rv;
}

CmResult CFrameQueue::Keep(const CCmMessageBlock& aRest) {
    const CmResult rv = Add(nullptr, 0, aRest);
    m_bRefused = !IsEmpty();
    return rv;
}

// TRUE: after aResult the transport has finished with the bytes that it was given.
BOOL CFrameQueue::IsSettled_i(CmResult aResult) const {
    return aResult == CM_OK || (m_bDatagrams && aResult != CM_ERROR_PARTIAL_DATA);
}

CmResult CFrameQueue::Add(const void* aHeader, DWORD aHeaderLen, const CCmMessageBlock& aPayload) {
    const DWORD dwPayload = aPayload.GetChainedLength();
    const BOOL bCopy = dwPayload <= MAX_COPIED;
    CCmChainPtr pViews = bCopy ? nullptr : DuplicateUnread(aPayload);
    if (!bCopy && !pViews)
        return CM_ERROR_OUT_OF_MEMORY;
    const DWORD dwWritten = aHeaderLen + (bCopy ? dwPayload : 0);
    CCmMessageBlock* pBlock = dwWritten > 0 ? SpaceFor_i(dwWritten) : nullptr;
    if (dwWritten > 0 && !pBlock)
        return CM_ERROR_OUT_OF_MEMORY;
    if (pBlock)
        pBlock->Write(aHeader, aHeaderLen);
    for (const CCmMessageBlock* pMb = &aPayload; pBlock && bCopy && pMb; pMb = pMb->GetNext())
        pBlock->Write(pMb->GetTopLevelReadPtr(), pMb->GetTopLevelLength());
    m_dwLength += aHeaderLen + dwPayload;
    if (pViews)
        LinkViews_i(std::move(pViews));
    return CM_OK;
}

// The last block, with that much space; a datagram does not share blocks. Null: memory ran out.
CCmMessageBlock* CFrameQueue::SpaceFor_i(DWORD aCount) {
    CCmMessageBlock* pLast = m_Chain.GetTail();
    if (!m_bDatagrams && pLast && pLast->GetTopLevelSpace() >= aCount)
        return pLast;
    const DWORD dwSize = m_bDatagrams ? aCount : std::max(aCount, std::clamp(m_dwLength, MIN_BLOCK, MAX_BLOCK));
    CCmChainPtr pBlock = NewBlock(dwSize);
    if (!pBlock)
        return nullptr;
    if (m_bDatagrams)
        pBlock->LockReading();
    m_Chain.Append(std::move(pBlock));
    return m_Chain.GetTail();
}

// The free space of the shared block before the views is used after them.
void CFrameQueue::LinkViews_i(CCmChainPtr aViews) {
    const CCmMessageBlock* pLast = m_Chain.GetTail();
    const BOOL bUseRest = !m_bDatagrams && pLast && pLast->GetTopLevelSpace() >= MIN_REST;
    CCmChainPtr pRest(bUseRest ? pLast->DuplicateTopLevel() : nullptr);
    if (pRest)
        pRest->AdvanceTopLevelReadPtr(pRest->GetTopLevelLength());
    m_Chain.Append(std::move(aViews));
    m_Chain.Append(std::move(pRest));
}

CmResult CFrameQueue::Flush(ICmTransport& aTransport) {
    CmResult rv = CM_OK;
    while (rv == CM_OK && !IsEmpty())
        rv = SendPart_i(aTransport);
    m_bRefused = !IsEmpty();
    return rv;
}

// The cut is between two blocks, where it costs nothing and does not change the last block.
CmResult CFrameQueue::SendPart_i(ICmTransport& aTransport) {
    const DWORD dwPart = m_bDatagrams ? FirstDatagram_i() : FirstPieces_i();
    CCmChainPtr pRest = dwPart < m_dwLength ? m_Chain.Cut(dwPart) : nullptr;
    CCmTransportParameter para;
    const CmResult rv = aTransport.SendData(*m_Chain.GetHead(), &para);
    if (IsSettled_i(rv))
        m_Chain.GetHead()->AdvanceChainedReadPtr(dwPart);
    m_dwLength -= dwPart - m_Chain.GetLength();
    m_Chain.Append(std::move(pRest));
    if (IsEmpty())
        Clear();
    else
        m_Chain.DropRead();
    return IsSettled_i(rv) ? CM_OK : rv;
}

DWORD CFrameQueue::FirstPieces_i() const {
    DWORD dwBytes = 0;
    CountPieces(m_Chain.GetHead(), dwBytes);
    return dwBytes;
}

DWORD CFrameQueue::FirstDatagram_i() const {
    DWORD dwBytes = m_Chain.GetHead()->GetTopLevelLength();
    for (const CCmMessageBlock* pMb = m_Chain.GetHead()->GetNext(); pMb; pMb = pMb->GetNext()) {
        if (pMb->GetFlag() & CCmMessageBlock::READ_LOCKED)
            break;
        dwBytes += pMb->GetTopLevelLength();
    }
    return dwBytes;
}

CCmChainPtr CFrameQueue::TakeAll() {
    m_dwLength = 0;
    m_bRefused = FALSE;
    return m_Chain.Take();
}

}  // namespace talvo
