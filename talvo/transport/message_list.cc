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
constexpr DWORD LONGEST_FRAME = MAX_FRAME_HEADER + CMessageList::MAX_COPIED;

}  // namespace

BOOL CMessageList::AddCopy(const CCmMessageBlock& aMessage, DWORD aLength) {
    const DWORD dwFrame = FrameHeaderLength(m_Framing) + aLength;
    CEntry* pEntry = SpaceFor(dwFrame);
    if (!pEntry)
        return FALSE;
    char* pTo = WriteFrameHeader(pEntry->m_pChain->GetTopLevelWritePtr(), m_Framing, aLength);
    for (const CCmMessageBlock* pMb = &aMessage; pMb; pMb = pMb->GetNext()) {
        const DWORD dwLength = pMb->GetTopLevelLength();
        if (dwLength > 0)  // else there may be no bytes to point to
            std::memcpy(pTo, pMb->GetTopLevelReadPtr(), dwLength);
        pTo += dwLength;
    }
    pEntry->m_pChain->AdvanceTopLevelWritePtr(dwFrame);
    ++pEntry->m_dwCopies;
    return TRUE;
}

BOOL CMessageList::AddFrames(const char* aFrames, DWORD aLength, DWORD aCount) {
    CEntry* pEntry = SpaceFor(aLength);
    if (!pEntry)
        return FALSE;
    pEntry->m_pChain->Write(aFrames, aLength);
    pEntry->m_dwCopies += aCount;
    return TRUE;
}

// The last block, if copies share it and it has that much space, or a new one. Null: memory ran out.
CMessageList::CEntry* CMessageList::SpaceFor(DWORD aCount) {
    CEntry* pLast = IsEmpty() ? nullptr : &m_Entries.back();
    if (pLast && pLast->m_dwCopies > 0 && pLast->m_pChain->GetTopLevelSpace() >= aCount)
        return pLast;
    const BOOL bBurst = pLast || aCount > LONGEST_FRAME;
    CCmChainPtr pBlock = NewBlock(bBurst ? NEXT_BLOCK : std::max(aCount, FIRST_BLOCK));
    return pBlock && AddEntry(std::move(pBlock), 0) ? &m_Entries.back() : nullptr;
}

BOOL CMessageList::HasSeveral() const {
    return CountEntries() > 1 || (CountEntries() == 1 && m_Entries[m_stFirst].m_dwCopies > 1);
}

CCmMessageBlock& CMessageList::Front() {
    CCmMessageBlock& first = *m_Entries[m_stFirst].m_pChain;
    m_bFrontInUse = TRUE;
    if (!IsFrontCopied())
        return first;
    if (!m_View) {
        const DWORD dwLength = LengthOfFirst();
        m_View.emplace(dwLength, first.GetTopLevelReadPtr() + FrameHeaderLength(m_Framing), DWORD{CCmMessageBlock::DONT_DELETE},
                       dwLength);
    }
    return *m_View;
}

void CMessageList::Pop() {
    CEntry& first = m_Entries[m_stFirst];
    if (first.m_dwCopies <= 1) {
        TakeChain();
        return;
    }
    m_View.reset();
    m_bFrontInUse = FALSE;
    first.m_pChain->AdvanceTopLevelReadPtr(FrameHeaderLength(m_Framing) + LengthOfFirst());
    --first.m_dwCopies;
}

uint64_t CMessageList::PopSeveral(DWORD aCount, DWORD& aBlocks) {
    uint64_t ullBytes = 0;
    while (aCount > 0) {
        const CEntry& first = m_Entries[m_stFirst];
        if (first.m_dwCopies == 0) {
            ullBytes += first.m_pChain->GetChainedLength();
            for (const CCmMessageBlock* pMb = first.m_pChain.get(); pMb; pMb = pMb->GetNext())
                ++aBlocks;
        } else if (first.m_dwCopies <= aCount) {  // the whole block
            ullBytes += first.m_pChain->GetTopLevelLength() - uint64_t{first.m_dwCopies} * FrameHeaderLength(m_Framing);
            aCount -= first.m_dwCopies;
            TakeChain();
            continue;
        } else {
            ullBytes += LengthOfFirst();
        }
        --aCount;
        Pop();
    }
    return ullBytes;
}

CCmChainPtr CMessageList::TakeChain() {
    CCmChainPtr pChain = std::move(m_Entries[m_stFirst].m_pChain);
    m_View.reset();
    m_bFrontInUse = FALSE;
    if (++m_stFirst == m_Entries.size())
        Clear();
    return pChain;
}

void CMessageList::Clear() {
    m_View.reset();
    m_bFrontInUse = FALSE;
    m_Entries.clear();
    m_stFirst = 0;
}

}  // namespace talvo
