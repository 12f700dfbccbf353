#include "talvo/session/forward_chain.h"

#include <memory>
#include <new>

namespace talvo {

namespace {

DWORD CountPieces(const CCmMessageBlock* aChain) {
    DWORD dwPieces = 0;
    for (; aChain; aChain = aChain->GetNext())
        dwPieces += aChain->GetTopLevelLength() > 0;
    return dwPieces;
}

}  // namespace

CForwardChain::~CForwardChain() { std::destroy_n(Piece_i(0), m_dwPieces); }

BOOL CForwardChain::Add(const CForwardMessage& aMessage) {
    const DWORD dwPieces = 1 + CountPieces(aMessage.m_pPayload.get());
    const DWORD dwHeader = HeaderLengthOf(m_Framing);
    if (m_dwPieces + dwPieces > MAX_PIECES || aMessage.GetHeaderLength() < dwHeader ||
        (m_dwPayload > 0 && m_dwPayload + aMessage.m_dwLength > MAX_PAYLOAD))
        return FALSE;
    const DWORD dwSkip = aMessage.GetHeaderLength() - dwHeader;
    if (aMessage.GetStored() > dwSkip)
        AddPiece_i(aMessage.m_pBlock, aMessage.m_dwOffset + dwSkip, aMessage.GetStored() - dwSkip);
    for (const CCmMessageBlock* pMb = aMessage.m_pPayload.get(); pMb; pMb = pMb->GetNext()) {
        if (pMb->GetTopLevelLength() == 0)
            continue;
        new (Piece_i(m_dwPieces)) CCmMessageBlock(*pMb, pMb->GetTopLevelLength());
        Link_i();
    }
    m_dwPayload += aMessage.m_dwLength;
    return TRUE;
}

// The first message of a run is added like any other; those behind it in the storage lengthen its piece.
DWORD CForwardChain::AddFrom(const CForwardLog& aLog, uint64_t aNumber) {
    uint64_t ullNext = aNumber;
    while (ullNext < aLog.GetEnd()) {
        const CForwardMessage& first = aLog.At(ullNext).m_Message;
        const uint64_t ullFirst = ullNext;
        if (!Add(first))
            break;
        ++ullNext;
        if (first.m_pPayload || first.m_Framing != m_Framing || m_dwPayload >= MAX_PAYLOAD)
            continue;
        ullNext = aLog.GetRunEnd(ullFirst, MAX_PAYLOAD - m_dwPayload + first.m_dwLength);
        const DWORD dwPayload = static_cast<DWORD>(aLog.GetBytesBefore(ullNext) - aLog.GetBytesBefore(ullFirst + 1));
        const DWORD dwHeaders = static_cast<DWORD>(ullNext - ullFirst - 1) * HeaderLengthOf(m_Framing);
        Piece_i(m_dwPieces - 1)->AdvanceTopLevelWritePtr(dwPayload + dwHeaders);
        m_dwPayload += dwPayload;
    }
    return static_cast<DWORD>(ullNext - aNumber);
}

DWORD CForwardLengths::CountWithin(DWORD aBytes, DWORD& aRest) const {
    DWORD dwCount = 0;
    while (dwCount < m_dwCount && m_dwLengths[dwCount] <= aBytes)
        aBytes -= m_dwLengths[dwCount++];
    aRest = dwCount < m_dwCount && aBytes > 0 ? m_dwLengths[dwCount] - aBytes : 0;
    return dwCount;
}

void CForwardChain::AddPiece_i(const CCmRefPtrT<CCmDataBlock>& aBlock, DWORD aOffset, DWORD aLength) {
    CCmMessageBlock* pLast = m_dwPieces > 0 ? Piece_i(m_dwPieces - 1) : nullptr;
    if (pLast && pLast->GetTopLevelWritePtr() == aBlock->GetBasePtr() + aOffset && pLast->GetTopLevelSpace() >= aLength) {
        pLast->AdvanceTopLevelWritePtr(aLength);
        return;
    }
    auto* pPiece = new (Piece_i(m_dwPieces)) CCmMessageBlock(aBlock);
    pPiece->AdvanceTopLevelWritePtr(aOffset + aLength);
    pPiece->AdvanceTopLevelReadPtr(aOffset);
    Link_i();
}

// The piece m_dwPieces is constructed.
void CForwardChain::Link_i() {
    if (m_dwPieces > 0)
        Piece_i(m_dwPieces - 1)->Append(Piece_i(m_dwPieces));
    ++m_dwPieces;
}

}  // namespace talvo
