#include "talvo/connection/protocol/receive_chain.h"

#include <algorithm>
#include <new>
#include <utility>

namespace talvo {

namespace {

// Storage is asked for in pieces of at least and, unless more arrives at once, at most so many bytes.
constexpr DWORD MIN_BLOCK = 256;
constexpr DWORD MAX_BLOCK = CCmDataBlock::BURST_SIZE;

}  // namespace

CmResult CReceiveChain::Append(const CCmMessageBlock& aData, DWORD aMissing) {
    for (const CCmMessageBlock* pMb = &aData; pMb; pMb = pMb->GetNext()) {
        const char* pFrom = pMb->GetTopLevelReadPtr();
        DWORD dwLeft = pMb->GetTopLevelLength();
        while (dwLeft > 0) {
            const DWORD dwWish = std::clamp(aMissing, MIN_BLOCK, MAX_BLOCK);
            if ((!m_pTail || m_pTail->GetTopLevelSpace() == 0) && !AddBlock_i(std::max(dwLeft, dwWish)))
                return CM_ERROR_OUT_OF_MEMORY;
            DWORD dwDone = 0;
            m_pTail->Write(pFrom, dwLeft, &dwDone);
            pFrom += dwDone;
            dwLeft -= dwDone;
            m_dwLength += dwDone;
            aMissing -= std::min(aMissing, dwDone);
        }
    }
    return CM_OK;
}

// A block is its own duplicate, so that whoever gets it frees it like any other.
BOOL CReceiveChain::AddBlock_i(DWORD aSize) {
    auto* pBlock = new (std::nothrow) CCmMessageBlock(aSize, nullptr, CCmMessageBlock::DUPLICATED);
    if (!pBlock || pBlock->GetTopLevelSpace() == 0) {
        delete pBlock;
        return FALSE;
    }
    if (m_pTail)
        m_pTail->Append(pBlock);
    else
        m_pHead = pBlock;
    m_pTail = pBlock;
    return TRUE;
}

BOOL CReceiveChain::Peek(void* aDst, DWORD aCount) const {
    if (aCount > m_dwLength)
        return FALSE;
    return !m_pHead || m_pHead->Read(aDst, aCount, nullptr, FALSE) == CM_OK;
}

void CReceiveChain::Skip(DWORD aCount) {
    m_dwLength -= aCount;
    if (m_dwLength == 0) {
        Clear();
        return;
    }
    m_pHead->AdvanceChainedReadPtr(aCount);
    if (m_pHead->GetTopLevelLength() == 0)
        m_pHead = m_pHead->ReclaimGarbage();
}

// The cut lies between two blocks. Of a block in which it would lie, the front gets a view without space behind it: whoever
// writes to what he was given must not reach what follows.
CCmMessageBlock* CReceiveChain::CutFront_i(DWORD aCount) {
    DWORD dwWhole = 0;
    for (const CCmMessageBlock* pMb = m_pHead; pMb && pMb->GetTopLevelLength() <= aCount - dwWhole; pMb = pMb->GetNext())
        dwWhole += pMb->GetTopLevelLength();
    CCmMessageBlock* pRest = dwWhole < m_dwLength ? m_pHead->Disjoint(dwWhole) : nullptr;
    if (const DWORD dwPart = aCount - dwWhole; dwPart > 0) {
        CCmMessageBlock* pView = CCmMessageBlock(*pRest, dwPart).DuplicateTopLevel();
        if (!pView) {
            m_pHead->Append(pRest);
            return nullptr;
        }
        m_pHead->Append(pView);
        pRest->AdvanceTopLevelReadPtr(dwPart);
    }
    if (!pRest)
        m_pTail = nullptr;
    m_dwLength -= aCount;
    return std::exchange(m_pHead, pRest);
}

void CReceiveChain::Clear() {
    if (CCmMessageBlock* pHead = std::exchange(m_pHead, nullptr))
        pHead->DestroyChained();
    m_pTail = nullptr;
    m_dwLength = 0;
}

}  // namespace talvo
