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
    const DWORD dwHeader = CForwardMessage::HEADER_LENGTH - m_dwSkip;
    const DWORD dwLength = dwHeader + aMessage.m_dwLength;
    if (m_dwPieces + dwPieces > MAX_PIECES || m_dwMessages == MAX_MESSAGES ||
        (m_dwPayload > 0 && m_dwPayload + aMessage.m_dwLength > MAX_PAYLOAD))
        return FALSE;
    const DWORD dwInBlock = aMessage.m_pPayload ? dwHeader : dwLength;
    if (dwInBlock > 0)
        AddPiece_i(aMessage.m_pBlock, aMessage.m_dwOffset + m_dwSkip, dwInBlock);
    for (const CCmMessageBlock* pMb = aMessage.m_pPayload.get(); pMb; pMb = pMb->GetNext()) {
        if (pMb->GetTopLevelLength() == 0)
            continue;
        new (Piece_i(m_dwPieces)) CCmMessageBlock(*pMb, pMb->GetTopLevelLength());
        Link_i();
    }
    m_dwLengths[m_dwMessages++] = dwLength;
    m_dwPayload += aMessage.m_dwLength;
    return TRUE;
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
