#include "talvo/base/block_chain.h"

#include <new>

namespace talvo {

CCmChainPtr NewBlock(DWORD aSize) {
    CCmChainPtr pBlock(new (std::nothrow) CCmMessageBlock(aSize, nullptr, CCmMessageBlock::DUPLICATED));
    return pBlock && pBlock->GetTopLevelSpace() == aSize ? std::move(pBlock) : nullptr;
}

CCmChainPtr DuplicateUnread(const CCmMessageBlock& aChain) {
    CBlockChain views;
    for (const CCmMessageBlock* pMb = &aChain; pMb; pMb = pMb->GetNext()) {
        if (pMb->GetTopLevelLength() == 0)
            continue;
        CCmChainPtr pView(CCmMessageBlock(*pMb, pMb->GetTopLevelLength()).DuplicateTopLevel());
        if (!pView)
            return nullptr;
        views.Append(std::move(pView));
    }
    return views.Take();
}

CBlockChain& CBlockChain::operator=(CBlockChain&& aRight) noexcept {
    Clear();
    Append(aRight.Take());
    return *this;
}

void CBlockChain::Append(CCmChainPtr aChain) {
    if (!aChain)
        return;
    CCmMessageBlock* pAdded = aChain.release();
    if (m_pTail)
        m_pTail->Append(pAdded);
    else
        m_pHead.reset(pAdded);
    for (m_pTail = pAdded; m_pTail->GetNext(); m_pTail = m_pTail->GetNext()) {
    }
}

CCmChainPtr CBlockChain::Cut(DWORD aCount) {
    if (!m_pHead)
        return nullptr;
    CCmChainPtr pRest(m_pHead->Disjoint(aCount));
    if (pRest) {
        for (m_pTail = m_pHead.get(); m_pTail->GetNext(); m_pTail = m_pTail->GetNext()) {
        }
    }
    return pRest;
}

void CBlockChain::DropRead() {
    if (!m_pHead)
        return;
    m_pHead.reset(m_pHead.release()->ReclaimGarbage());
    if (!m_pHead)
        m_pTail = nullptr;
}

CCmChainPtr CBlockChain::Take() {
    m_pTail = nullptr;
    return std::move(m_pHead);
}

}  // namespace talvo
