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
    CmResult rv = Keep(m_dwOwn + aMissing);
    for (const CCmMessageBlock* pMb = &aData; pMb && rv == CM_OK; pMb = pMb->GetNext())
        rv = Copy_i(pMb->GetTopLevelReadPtr(), pMb->GetTopLevelLength(), aMissing);
    return rv;
}

CmResult CReceiveChain::Borrow(const CCmMessageBlock& aData) {
    if (m_dwBorrowed > 0 || aData.GetNext())
        return Append(aData, 0);
    m_pBorrowed = aData.GetTopLevelReadPtr();
    m_dwBorrowed = aData.GetTopLevelLength();
    return CM_OK;
}

CmResult CReceiveChain::Keep(DWORD aNeeded) {
    DWORD dwMissing = aNeeded - std::min(aNeeded, m_dwOwn);
    return Copy_i(m_pBorrowed, std::exchange(m_dwBorrowed, 0), dwMissing);
}

// Moves the first borrowed bytes behind the own ones.
CmResult CReceiveChain::Join_i(DWORD aCount) {
    const char* pFrom = std::exchange(m_pBorrowed, m_pBorrowed + aCount);
    m_dwBorrowed -= aCount;
    DWORD dwMissing = aCount;
    return Copy_i(pFrom, aCount, dwMissing);
}

CmResult CReceiveChain::Copy_i(const char* aFrom, DWORD aCount, DWORD& aMissing) {
    while (aCount > 0) {
        const DWORD dwWish = std::clamp(aMissing, MIN_BLOCK, MAX_BLOCK);
        if ((m_Chain.IsEmpty() || m_Chain.GetTail()->GetTopLevelSpace() == 0) && !AddBlock_i(std::max(aCount, dwWish)))
            return CM_ERROR_OUT_OF_MEMORY;
        DWORD dwDone = 0;
        m_Chain.GetTail()->Write(aFrom, aCount, &dwDone);
        aFrom += dwDone;
        aCount -= dwDone;
        m_dwOwn += dwDone;
        aMissing -= std::min(aMissing, dwDone);
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
    if (aCount > GetLength())
        return FALSE;
    const DWORD dwOwn = std::min(aCount, m_dwOwn);
    if (dwOwn > 0 && dwOwn <= HeadLength_i())
        std::memcpy(aDst, m_Chain.GetHead()->GetTopLevelReadPtr(), dwOwn);
    else if (dwOwn > 0)
        m_Chain.GetHead()->Read(aDst, dwOwn, nullptr, FALSE);
    if (aCount > dwOwn)
        std::memcpy(static_cast<char*>(aDst) + dwOwn, m_pBorrowed, aCount - dwOwn);
    return TRUE;
}

void CReceiveChain::Skip(DWORD aCount) {
    const DWORD dwOwn = std::min(aCount, m_dwOwn);
    if (dwOwn > 0)
        SkipOwn_i(dwOwn);
    m_pBorrowed += aCount - dwOwn;
    m_dwBorrowed -= aCount - dwOwn;
}

void CReceiveChain::SkipOwn_i(DWORD aCount) {
    m_dwOwn -= aCount;
    if (m_dwOwn == 0) {
        m_Chain.Clear();
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
    CBlockChain rest(dwWhole < m_dwOwn ? m_Chain.Cut(dwWhole) : nullptr);
    if (const DWORD dwPart = aCount - dwWhole; dwPart > 0) {
        CCmChainPtr pView(CCmMessageBlock(*rest.GetHead(), dwPart).DuplicateTopLevel());
        if (!pView) {
            m_Chain.Append(rest.Take());
            return nullptr;
        }
        m_Chain.Append(std::move(pView));
        rest.GetHead()->AdvanceTopLevelReadPtr(dwPart);
    }
    m_dwOwn -= aCount;
    return std::exchange(m_Chain, std::move(rest)).Take();
}

void CReceiveChain::Clear() {
    m_Chain.Clear();
    m_dwOwn = m_dwBorrowed = 0;
}

}  // namespace talvo
