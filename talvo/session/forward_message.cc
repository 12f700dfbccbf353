#include "talvo/session/forward_message.h"

#include <arpa/inet.h>

#include <cstring>

#include "talvo/connection/protocol/cs_pdu.h"

namespace talvo {

namespace {

CmResult NewStorage(DWORD aSize, CCmRefPtrT<CCmDataBlock>& aBlock) {
    return CCmDataBlock::CreateInstance(aBlock.ParaOut(), aSize, nullptr);
}

void WriteHeader(char* aTo, DWORD aLength) {
    const DWORD dwLength = htonl(aLength);
    *aTo = static_cast<char>(CS_PDU_TYPE_DATA_NORMAL);
    std::memcpy(aTo + 1, &dwLength, sizeof dwLength);
}

void WritePayload(char* aTo, const CCmMessageBlock& aData) {
    for (const CCmMessageBlock* pMb = &aData; pMb; pMb = pMb->GetNext()) {
        std::memcpy(aTo, pMb->GetTopLevelReadPtr(), pMb->GetTopLevelLength());
        aTo += pMb->GetTopLevelLength();
    }
}

}  // namespace

CmResult CForwardPacker::Pack(const CCmMessageBlock& aData, DWORD aLength, const CCmForwardHeader* aHeader,
                              CForwardMessage& aMessage) {
    const BOOL bCopy = aLength <= MAX_COPIED;
    CCmChainPtr pPayload(bCopy ? nullptr : aData.DuplicateChained());
    char* pTo = bCopy || pPayload ? Reserve_i(CForwardMessage::HEADER_LENGTH + (bCopy ? aLength : 0)) : nullptr;
    if (!pTo)
        return CM_ERROR_OUT_OF_MEMORY;
    WriteHeader(pTo, aLength);
    if (bCopy)
        WritePayload(pTo + CForwardMessage::HEADER_LENGTH, aData);
    aMessage.m_pBlock = m_pBlock;
    aMessage.m_pPayload = std::move(pPayload);
    aMessage.m_ullKey = aHeader ? aHeader->m_ullKey : 0;
    aMessage.m_dwFlags = aHeader ? aHeader->m_dwFlags : 0;
    aMessage.m_dwOffset = static_cast<DWORD>(pTo - m_pBlock->GetBasePtr());
    aMessage.m_dwLength = aLength;
    return CM_OK;
}

// Null: memory ran out.
char* CForwardPacker::Reserve_i(DWORD aCount) {
    if (!m_pBlock || m_pBlock->GetLength() - m_dwUsed < aCount) {
        if (NewStorage(CCmDataBlock::BURST_SIZE, m_pBlock) != CM_OK)
            return nullptr;
        m_dwUsed = 0;
    }
    char* pTo = m_pBlock->GetBasePtr() + m_dwUsed;
    m_dwUsed += aCount;
    return pTo;
}

CmResult CForwardPacker::Separate(CForwardMessage& aMessage) {
    const DWORD dwLength = CForwardMessage::HEADER_LENGTH + (aMessage.m_pPayload ? 0 : aMessage.m_dwLength);
    CCmRefPtrT<CCmDataBlock> pBlock;
    if (NewStorage(dwLength, pBlock) != CM_OK)
        return CM_ERROR_OUT_OF_MEMORY;
    std::memcpy(pBlock->GetBasePtr(), aMessage.m_pBlock->GetBasePtr() + aMessage.m_dwOffset, dwLength);
    aMessage.m_pBlock = std::move(pBlock);
    aMessage.m_dwOffset = 0;
    return CM_OK;
}

}  // namespace talvo
