#include "talvo/connection/protocol/receive_chain.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace talvo {

namespace {

// Storage is allocated in pieces of at least MIN_BLOCK and, unless more arrives at once, at most MAX_BLOCK bytes.
constexpr DWORD MIN_BLOCK = 256;
constexpr DWORD MAX_BLOCK = CCmDataBlock::BURST_SIZE;

}  // namespace

CmResult CReceiveChain::Append(const CCmMessageBlock& aData, DWORD aMissing) {
    for (const CCmMessageBlock* pMb = &aData; pMb; pMb = pMb->GetNext()) {
        const char* pFrom = pMb->GetTopLevelReadPtr();
        DWORD dwLeft = pMb->GetTopLevelLength();
        while (dwLeft > 0) {
            const DWORD dwWish = std::clamp(aMissing, MIN_BLOCK, MAX_BLOCK);
            if ((m_Chain.IsEmpty() || m_Chain.GetTail()->GetTopLevelSpace() == 0) && !AddBlock_i(std::max(dwLeft, dwWish)))
                return CM_ERROR_OUT_OF_MEMORY;
            DWORD dwDone = 0;
            m_Chain.GetTail()->Write(pFrom, dwLeft, &dwDone);
            pFrom += dwDone;
            dwLeft -= dwDone;
            m_dwLength += dwDone;
            aMissing -= std::min(aMissing, dwDone);
        }
    }
    return CM_OK;
}

BOOL CReceiveChain::AddBlock_i(DWORD aSize) {
    CCmChainPtr pBlock = NewBlock(aSize);
    const BOOL bGood = bool{pBlock};
    m_Chain.Append(std::move(pBlock));
    return bGood;
}

BOOL CReceiveChain::Peek(void* aDst, DWORD aCount) const {
    if (aCount > m_dwLength)
        return FALSE;
    if (aCount > 0 && aCount <= HeadLength_i()) {
        std::memcpy(aDst, m_Chain.GetHead()->GetTopLevelReadPtr(), aCount);
        return TRUE;
    }
    return m_Chain.IsEmpty() || m_Chain.GetHead()->Read(aDst, aCount, nullptr, FALSE) == CM_OK;
}

void CReceiveChain::Skip(DWORD aCount) {
    m_dwLength -= aCount;
    if (m_dwLength == 0) {
        Clear();
        return;
    }
    if (aCount < HeadLength_i()) {
        m_Chain.GetHead()->AdvanceTopLevelReadPtr(aCount);
        return;
    }
    m_Chain.GetHead()->AdvanceChainedReadPtr(aCount);
    if (HeadLength_i() == 0)
        m_Chain.DropRead();
}

// The cut is between two blocks. If it would be inside a block, the front gets a view without space after it: a sink that
// writes to its block must not reach the bytes that follow.
CCmChainPtr CReceiveChain::CutFront_i(DWORD aCount) {
    DWORD dwWhole = 0;
    for (const CCmMessageBlock* pMb = m_Chain.GetHead(); pMb && pMb->GetTopLevelLength() <= aCount - dwWhole;
         pMb = pMb->GetNext())
        dwWhole += pMb->GetTopLevelLength();
    CBlockChain rest(dwWhole < m_dwLength ? m_Chain.Cut(dwWhole) : nullptr);
    if (const DWORD dwPart = aCount - dwWhole; dwPart > 0) {
        CCmChainPtr pView(CCmMessageBlock(*rest.GetHead(), dwPart).DuplicateTopLevel());
        if (!pView) {
            m_Chain.Append(rest.Take());
            return nullptr;
        }
        m_Chain.Append(std::move(pView));
        rest.GetHead()->AdvanceTopLevelReadPtr(dwPart);
    }
    m_dwLength -= aCount;
    return std::exchange(m_Chain, std::move(rest)).Take();
}

void CReceiveChain::Clear() {
    m_Chain.Clear();
    m_dwLength = 0;
}

}  // namespace talvo
