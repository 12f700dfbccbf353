#include "talvo/session/forward_message.h"

#include <cstring>

#include "talvo/base/block_chain.h"
#include "talvo/transport/frame_header.h"

namespace talvo {

namespace {

constexpr DWORD SHARES = 64;

CmResult NewStorage(DWORD aSize, CCmRefPtrT<CCmDataBlock>& aBlock) {
    return CCmDataBlock::CreateInstance(aBlock.ParaOut(), aSize, nullptr);
}

void WritePayload(char* aTo, const CCmMessageBlock& aData) {
    for (const CCmMessageBlock* pMb = &aData; pMb; pMb = pMb->GetNext()) {
        std::memcpy(aTo, pMb->GetTopLevelReadPtr(), pMb->GetTopLevelLength());
        aTo += pMb->GetTopLevelLength();
    }
}

}  // namespace

char* WriteForwardHeader(char* aTo, EForwardFraming aFraming, DWORD aLength) {
    if (aFraming == EForwardFraming::NONE)
        return aTo;
    const bool bPackage = aFraming == EForwardFraming::PACKAGE;
    return WriteFrameHeader(aTo, bPackage ? IFramedSending::PACKAGE : IFramedSending::LENGTH, aLength);
}

CmResult CForwardPacker::Pack(const CCmMessageBlock& aData, DWORD aLength, const CCmForwardHeader* aHeader,
                              CForwardMessage& aMessage) {
    const BOOL bCopy = aLength <= MAX_COPIED;
    const EForwardFraming framing = bCopy ? m_Framing : EForwardFraming::PACKAGE;
    if (!bCopy && !(aMessage.m_pPayload = DuplicateUnread(aData)))
        return CM_ERROR_OUT_OF_MEMORY;
    char* pTo = Reserve_i(HeaderLengthOf(framing) + (bCopy ? aLength : 0));
    if (!pTo) {
        aMessage.m_pPayload.reset();
        return CM_ERROR_OUT_OF_MEMORY;
    }
    aMessage.m_pBlock = Share_i();
    aMessage.m_ullKey = aHeader ? aHeader->m_ullKey : 0;
    aMessage.m_byFlags = aHeader ? static_cast<BYTE>(aHeader->m_dwFlags) : BYTE{0};
    aMessage.m_Framing = framing;
    aMessage.m_dwOffset = static_cast<DWORD>(pTo - m_pBlock->GetBasePtr());
    aMessage.m_dwLength = aLength;
    pTo = WriteForwardHeader(pTo, framing, aLength);
    if (bCopy)
        WritePayload(pTo, aData);
    return CM_OK;
}

// Each message has a reference. Many are added in one step, because a step costs more than the copy of a small message.
CCmRefPtrT<CCmDataBlock> CForwardPacker::Share_i() {
    if (m_dwShares == 0) {
        m_pBlock->AddReferences(SHARES);
        m_dwShares = SHARES;
    }
    --m_dwShares;
    return CCmRefPtrT<CCmDataBlock>::Adopt(m_pBlock.Get());
}

void CForwardPacker::LeaveBlock_i() {
    if (m_dwShares > 0)
        m_pBlock->ReleaseReferences(m_dwShares);
    m_dwShares = 0;
    m_pBlock.Reset();
}

// Null: memory ran out.
char* CForwardPacker::Reserve_i(DWORD aCount) {
    if (!m_pBlock || m_pBlock->GetLength() - m_dwUsed < aCount) {
        LeaveBlock_i();
        if (NewStorage(CCmDataBlock::BURST_SIZE, m_pBlock) != CM_OK)
            return nullptr;
        m_dwUsed = 0;
    }
    char* pTo = m_pBlock->GetBasePtr() + m_dwUsed;
    m_dwUsed += aCount;
    return pTo;
}

CmResult CForwardPacker::Separate(CForwardMessage& aMessage) {
    const DWORD dwLength = aMessage.GetStored();
    CCmRefPtrT<CCmDataBlock> pBlock;
    if (NewStorage(dwLength, pBlock) != CM_OK)
        return CM_ERROR_OUT_OF_MEMORY;
    std::memcpy(pBlock->GetBasePtr(), aMessage.GetStorage(), dwLength);
    aMessage.m_pBlock = std::move(pBlock);
    aMessage.m_dwOffset = 0;
    return CM_OK;
}

}  // namespace talvo
