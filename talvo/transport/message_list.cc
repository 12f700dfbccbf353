#include "talvo/transport/message_list.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "talvo/base/block_chain.h"

namespace talvo {

namespace {

// The first block is small, for a single message; the following ones are for bursts.
constexpr DWORD FIRST_BLOCK = 512;
constexpr DWORD NEXT_BLOCK = CCmDataBlock::BURST_SIZE;
constexpr DWORD LENGTH_SIZE = sizeof(DWORD);

}  // namespace

BOOL CMessageList::AddCopy(const CCmMessageBlock& aMessage, DWORD aLength) {
    CCmMessageBlock* pBlock = SpaceFor(LENGTH_SIZE + aLength);
    if (!pBlock)
        return FALSE;
    pBlock->Write(&aLength, LENGTH_SIZE);
    for (const CCmMessageBlock* pMb = &aMessage; pMb; pMb = pMb->GetNext())
        pBlock->Write(pMb->GetTopLevelReadPtr(), pMb->GetTopLevelLength());
    return TRUE;
}

CCmMessageBlock* CMessageList::SpaceFor(DWORD aCount) {
    if (!IsEmpty() && IsShared(*m_Chains.back()) && m_Chains.back()->GetTopLevelSpace() >= aCount)
        return m_Chains.back().get();
    const DWORD dwSize = std::max(aCount, IsEmpty() ? FIRST_BLOCK : NEXT_BLOCK);
    CCmChainPtr pBlock = NewBlock(dwSize);
    if (!pBlock)
        return nullptr;
    pBlock->LockReading();
    return Add(std::move(pBlock)) ? m_Chains.back().get() : nullptr;
}

DWORD CMessageList::LengthOfFirst(const CCmMessageBlock& aShared) {
    DWORD dwLength = 0;
    std::memcpy(&dwLength, aShared.GetTopLevelReadPtr(), LENGTH_SIZE);
    return dwLength;
}

BOOL CMessageList::HasSeveral() const {
    if (m_Chains.size() - m_stFirst != 1)
        return !IsEmpty();
    const CCmMessageBlock& first = *m_Chains[m_stFirst];
    return IsShared(first) && first.GetTopLevelLength() > LENGTH_SIZE + LengthOfFirst(first);
}

CCmMessageBlock& CMessageList::Front() {
    CCmMessageBlock& first = *m_Chains[m_stFirst];
    if (!IsShared(first))
        return first;
    if (!m_View) {
        const DWORD dwLength = LengthOfFirst(first);
        m_View.emplace(dwLength, first.GetTopLevelReadPtr() + LENGTH_SIZE, DWORD{CCmMessageBlock::DONT_DELETE}, dwLength);
    }
    return *m_View;
}

void CMessageList::Pop() {
    CCmMessageBlock& first = *m_Chains[m_stFirst];
    m_View.reset();
    if (IsShared(first)) {
        first.AdvanceTopLevelReadPtr(LENGTH_SIZE + LengthOfFirst(first));
        if (first.GetTopLevelLength() > 0)
            return;
    }
    TakeChain();
}

CCmChainPtr CMessageList::TakeChain() {
    CCmChainPtr pChain = std::move(m_Chains[m_stFirst]);
    if (++m_stFirst == m_Chains.size())
        Clear();
    return pChain;
}

void CMessageList::Clear() {
    m_View.reset();
    m_Chains.clear();
    m_stFirst = 0;
}

}  // namespace talvo
