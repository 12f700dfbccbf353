#include "talvo/connection/gather_chain.h"

#include <algorithm>
#include <memory>
#include <new>

namespace talvo {

namespace {

// Calls aUse with every piece behind the first aSkip bytes while it returns TRUE. FALSE: it did not.
template <class Use>
BOOL ForEachPiece(const CCmMessageBlock& aChain, DWORD aSkip, Use aUse) {
    for (const CCmMessageBlock* pMb = &aChain; pMb; pMb = pMb->GetNext()) {
        const DWORD dwLength = pMb->GetTopLevelLength();
        const DWORD dwSkip = std::min(aSkip, dwLength);
        aSkip -= dwSkip;
        if (dwSkip < dwLength && !aUse(pMb->GetTopLevelReadPtr() + dwSkip, dwLength - dwSkip))
            return FALSE;
    }
    return TRUE;
}

}  // namespace

BOOL CGatherChain::Add(const CCmMessageBlock& aChain, DWORD aSkip) {
    DWORD dwRoom = MAX_PIECES - m_dwCount;
    if (!ForEachPiece(aChain, aSkip, [&](const char*, DWORD) { return dwRoom-- > 0; }))
        return FALSE;
    return ForEachPiece(aChain, aSkip, [this](const char* aData, DWORD aLength) {
        AddPiece(aData, aLength);
        return TRUE;
    });
}

void CGatherChain::AddPiece(const char* aData, DWORD aLength) {
    CCmMessageBlock* pPiece = new (Piece(m_dwCount)) CCmMessageBlock(aLength, aData, 0, aLength);
    if (m_dwCount > 0)
        Piece(m_dwCount - 1)->Append(pPiece);
    ++m_dwCount;
    m_dwLength += aLength;
}

void CGatherChain::Clear() {
    std::destroy_n(Piece(0), m_dwCount);
    m_dwCount = 0;
    m_dwLength = 0;
}

}  // namespace talvo
