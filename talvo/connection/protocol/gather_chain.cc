#include "talvo/connection/protocol/gather_chain.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace talvo {

namespace {

// Calls aUse with every piece after the first aSkip bytes while it returns TRUE. FALSE: aUse returned FALSE.
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
    DWORD dwJoined = m_dwJoined;
    BOOL bLastJoins = m_bLastJoins;
    const BOOL bFits = ForEachPiece(aChain, aSkip, [&](const char*, DWORD aLength) {
        const BOOL bJoins = IsJoined(aLength, dwJoined);
        const BOOL bOwnPiece = !bJoins || !bLastJoins;
        dwJoined += bJoins ? aLength : 0;
        bLastJoins = bJoins;
        return !bOwnPiece || dwRoom-- > 0;
    });
    if (!bFits)
        return FALSE;
    return ForEachPiece(aChain, aSkip, [this](const char* aData, DWORD aLength) {
        AddPiece(aData, aLength);
        return TRUE;
    });
}

void CGatherChain::AddPiece(const char* aData, DWORD aLength) {
    m_dwLength += aLength;
    DWORD dwSize = aLength;
    const BOOL bJoins = IsJoined(aLength, m_dwJoined);
    if (bJoins) {
        char* pJoined = m_Joined + m_dwJoined;
        dwSize = sizeof m_Joined - m_dwJoined;
        std::memcpy(pJoined, aData, aLength);
        m_dwJoined += aLength;
        if (m_bLastJoins) {
            Piece(m_dwCount - 1)->AdvanceTopLevelWritePtr(aLength);
            return;
        }
        aData = pJoined;
    }
    m_bLastJoins = bJoins;
    CCmMessageBlock* pPiece = new (Piece(m_dwCount)) CCmMessageBlock(dwSize, aData, 0, aLength);
    if (m_dwCount > 0)
        Piece(m_dwCount - 1)->Append(pPiece);
    ++m_dwCount;
}

void CGatherChain::Clear() {
    std::destroy_n(Piece(0), m_dwCount);
    m_dwCount = 0;
    m_dwLength = 0;
    m_dwJoined = 0;
    m_bLastJoins = FALSE;
}

}  // namespace talvo
