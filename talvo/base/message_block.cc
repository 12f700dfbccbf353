#include "talvo/base/message_block.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "talvo/base/trace.h"

namespace {

// The flags that a constructor does not copy: the lock bits and the origin of the memory.
constexpr DWORD NOT_INHERITED = 0xFF03;

// The system's functions must not get null pointers, not even for 0 bytes.
void CopyBytes(void* aDst, const void* aSrc, DWORD aCount) {
    if (aDst && aSrc && aCount > 0)
        std::memcpy(aDst, aSrc, aCount);
}

void Report(DWORD* aCount, DWORD aValue) {
    if (aCount)
        *aCount = aValue;
}

}  // namespace

CCmMessageBlock::CCmMessageBlock(DWORD aSize, const char* aData, DWORD aFlag, DWORD aAdvanceWritePtrSize)
    : m_Flag(aFlag & ~NOT_INHERITED) {
    if (aData && !(aFlag & MALLOC_AND_COPY)) {
        m_Flag |= DONT_DELETE;
        m_pBeginPtr = m_pReadPtr = m_pWritePtr = const_cast<char*>(aData);
        m_pEndPtr = m_pBeginPtr + aSize;
    } else if (aSize > 0) {
        CCmDataBlock* pDb = nullptr;
        if (CCmDataBlock::CreateInstance(pDb, aSize, nullptr) == CM_OK)
            m_pDataBlock = CCmRefPtrT<CCmDataBlock>::Adopt(pDb);
        AttachDataBlock();
    }
    AdvanceTopLevelWritePtr(aAdvanceWritePtrSize);
}

CCmMessageBlock::CCmMessageBlock(CCmRefPtrT<CCmDataBlock> aDb, DWORD aFlag)
    : m_pDataBlock(std::move(aDb)), m_Flag(aFlag & ~NOT_INHERITED) {
    AttachDataBlock();
}

CCmMessageBlock::CCmMessageBlock(const CCmMessageBlock& aSource, DWORD aLength)
    : m_pDataBlock(aSource.m_pDataBlock),
      m_pReadPtr(aSource.m_pReadPtr),
      m_pWritePtr(m_pReadPtr + std::min(aLength, aSource.GetTopLevelLength())),
      m_pBeginPtr(m_pReadPtr),
      m_pEndPtr(m_pWritePtr),
      m_Flag(aSource.m_Flag & DONT_DELETE) {}

void CCmMessageBlock::AttachDataBlock() {
    if (!m_pDataBlock)
        return;
    m_pBeginPtr = m_pReadPtr = m_pWritePtr = m_pDataBlock->GetBasePtr();
    m_pEndPtr = m_pBeginPtr + m_pDataBlock->GetLength();
}

CmResult CCmMessageBlock::Read(void* aDst, DWORD aCount, DWORD* aRead, BOOL aAdvance) {
    char* pDst = static_cast<char*>(aDst);
    DWORD dwDone = 0;
    for (CCmMessageBlock* pMb = this; pMb; pMb = pMb->m_pNext) {
        const DWORD dwPart = std::min(pMb->GetTopLevelLength(), aCount - dwDone);
        CopyBytes(pDst, pMb->m_pReadPtr, dwPart);
        if (pDst)
            pDst += dwPart;
        if (aAdvance)
            pMb->m_pReadPtr += dwPart;
        dwDone += dwPart;
        if (dwDone == aCount)
            break;
    }
    Report(aRead, dwDone);
    return dwDone < aCount ? CM_ERROR_PARTIAL_DATA : CM_OK;
}

CmResult CCmMessageBlock::Write(const void* aSrc, DWORD aCount, DWORD* aWritten) {
    const DWORD dwDone = std::min(GetTopLevelSpace(), aCount);
    CopyBytes(m_pWritePtr, aSrc, dwDone);
    m_pWritePtr += dwDone;
    Report(aWritten, dwDone);
    return dwDone < aCount ? CM_ERROR_PARTIAL_DATA : CM_OK;
}

CmResult CCmMessageBlock::AdvanceChainedWritePtr(DWORD aCount, DWORD* aDone) {
    DWORD dwDone = 0;
    for (CCmMessageBlock* pMb = this; pMb && dwDone < aCount; pMb = pMb->m_pNext) {
        if (pMb->m_pReadPtr != pMb->m_pBeginPtr) {
            CM_ERROR_TRACE("CCmMessageBlock::AdvanceChainedWritePtr, can't advance. m_pBeginPtr="
                           << static_cast<const void*>(pMb->m_pBeginPtr)
                           << " m_pReadPtr=" << static_cast<const void*>(pMb->m_pReadPtr) << " this=" << pMb);
            break;
        }
        const DWORD dwPart = std::min(pMb->GetTopLevelSpace(), aCount - dwDone);
        pMb->m_pWritePtr += dwPart;
        dwDone += dwPart;
    }
    Report(aDone, dwDone);
    return dwDone < aCount ? CM_ERROR_PARTIAL_DATA : CM_OK;
}

DWORD CCmMessageBlock::GetChainedLength() const {
    uint64_t ullSum = 0;
    for (const CCmMessageBlock* pMb = this; pMb; pMb = pMb->m_pNext)
        ullSum += pMb->GetTopLevelLength();
    return static_cast<DWORD>(std::min<uint64_t>(ullSum, MOST_LENGTH));
}

DWORD CCmMessageBlock::GetChainedSpace() const {
    DWORD dwSum = 0;
    for (const CCmMessageBlock* pMb = this; pMb; pMb = pMb->m_pNext)
        dwSum += pMb->GetTopLevelSpace();
    return dwSum;
}

void CCmMessageBlock::Append(CCmMessageBlock* aMb) {
    CCmMessageBlock* pLast = this;
    for (; pLast != aMb && pLast->m_pNext; pLast = pLast->m_pNext) {
    }
    if (pLast != aMb)
        pLast->m_pNext = aMb;
}

CCmMessageBlock* CCmMessageBlock::DuplicateTopLevel() const {
    const DWORD dwSize = static_cast<DWORD>(m_pEndPtr - m_pBeginPtr);
    CCmMessageBlock* pMb;
    if (m_Flag & DONT_DELETE) {
        pMb = new (std::nothrow) CCmMessageBlock(dwSize, nullptr, (m_Flag & ~DONT_DELETE) | MALLOC_AND_COPY);
        if (pMb && dwSize > 0 && !pMb->m_pDataBlock) {
            delete pMb;
            return nullptr;
        }
        if (pMb)
            CopyBytes(pMb->m_pBeginPtr, m_pBeginPtr, dwSize);
    } else {
        pMb = new (std::nothrow) CCmMessageBlock(m_pDataBlock, m_Flag);
        if (pMb) {
            pMb->m_pBeginPtr = m_pBeginPtr;
            pMb->m_pEndPtr = m_pEndPtr;
        }
    }
    if (!pMb)
        return nullptr;
    pMb->m_pReadPtr = pMb->m_pBeginPtr + (m_pReadPtr - m_pBeginPtr);
    pMb->m_pWritePtr = pMb->m_pBeginPtr + (m_pWritePtr - m_pBeginPtr);
    pMb->m_Flag |= DUPLICATED;
    return pMb;
}

CCmMessageBlock* CCmMessageBlock::DuplicateChained() const {
    CCmMessageBlock* pHead = nullptr;
    CCmMessageBlock** ppLink = &pHead;
    for (const CCmMessageBlock* pMb = this; pMb; pMb = pMb->m_pNext) {
        *ppLink = pMb->DuplicateTopLevel();
        if (!*ppLink) {
            if (pHead)
                pHead->DestroyChained();
            return nullptr;
        }
        ppLink = &(*ppLink)->m_pNext;
    }
    return pHead;
}

CCmMessageBlock* CCmMessageBlock::Disjoint(DWORD aStart) { return MakeAllDuplicated(CutBehind(aStart)); }

CCmMessageBlock* CCmMessageBlock::CutBehind(DWORD aStart) {
    for (CCmMessageBlock* pMb = this; pMb; pMb = pMb->m_pNext) {
        const DWORD dwLength = pMb->GetTopLevelLength();
        if (aStart != 0 && aStart == dwLength)
            return std::exchange(pMb->m_pNext, nullptr);
        if (aStart < dwLength) {
            CCmMessageBlock* pSecond = pMb->DuplicateTopLevel();
            if (!pSecond)
                return nullptr;
            pSecond->m_pReadPtr += aStart;
            pSecond->m_pNext = std::exchange(pMb->m_pNext, nullptr);
            pMb->m_pWritePtr = pMb->m_pReadPtr + aStart;
            return pSecond;
        }
        aStart -= dwLength;
    }
    return nullptr;
}

CCmMessageBlock* CCmMessageBlock::MakeAllDuplicated(CCmMessageBlock* aHead) {
    for (CCmMessageBlock** ppLink = &aHead; *ppLink; ppLink = &(*ppLink)->m_pNext) {
        CCmMessageBlock* pMb = *ppLink;
        if (pMb->m_Flag & DUPLICATED)
            continue;
        CM_WARNING_TRACE(
            "CCmMessageBlock::Disjoint, there are not DUPLICATED blocks behind the disjointed block. this=" << pMb);
        CCmMessageBlock* pCopy = pMb->DuplicateTopLevel();
        if (!pCopy) {
            // All blocks before it are duplicates, and no other pointer to them is left.
            if (aHead != pMb)
                aHead->DestroyChained();
            return nullptr;
        }
        pCopy->m_pNext = std::exchange(pMb->m_pNext, nullptr);
        *ppLink = pCopy;
    }
    return aHead;
}

void CCmMessageBlock::DestroyChained() {
    for (CCmMessageBlock* pMb = this; pMb;) {
        if (!(pMb->m_Flag & DUPLICATED)) {
            CM_ERROR_TRACE("CCmMessageBlock::DestroyChained, block is not DUPLICATED. this=" << pMb);
            return;
        }
        CCmMessageBlock* pNext = pMb->m_pNext;
        delete pMb;
        pMb = pNext;
    }
}

CCmMessageBlock* CCmMessageBlock::ReclaimGarbage() {
    CCmMessageBlock* pKept = nullptr;  // the last visited block that must not be freed
    CCmMessageBlock* pMb = this;
    while (pMb && pMb->m_pReadPtr == pMb->m_pWritePtr) {
        CCmMessageBlock* pNext = pMb->m_pNext;
        if (pMb->m_Flag & DUPLICATED) {
            delete pMb;
            if (pKept)
                pKept->m_pNext = pNext;
        } else {
            pKept = pMb;
        }
        pMb = pNext;
    }
    return pMb;
}

// Kept on purpose: the later blocks get the first one's begin, too. Pinned by MessageBlock.RewindGivesAllTheFirstBegin.
void CCmMessageBlock::RewindChained() {
    for (CCmMessageBlock* pMb = this; pMb; pMb = pMb->m_pNext) {
        pMb->m_pReadPtr = pMb->m_pBeginPtr;
        pMb->m_pWritePtr = m_pBeginPtr;
    }
}

DWORD CCmMessageBlock::FillIov(iovec* aIov, DWORD aMax) const {
    DWORD dwCount = 0;
    for (const CCmMessageBlock* pMb = this; pMb && dwCount < aMax; pMb = pMb->m_pNext) {
        const DWORD dwLength = pMb->GetTopLevelLength();
        if (dwLength > 0)
            aIov[dwCount++] = {pMb->m_pReadPtr, dwLength};
    }
    return dwCount;
}

CCmString CCmMessageBlock::FlattenChained() const {
    CCmString strAll;
    strAll.reserve(size_t{GetChainedLength()} + 1);
    for (const CCmMessageBlock* pMb = this; pMb; pMb = pMb->m_pNext)
        strAll.append(pMb->m_pReadPtr, pMb->GetTopLevelLength());
    return strAll;
}
