#include "talvo/transport/thread_proxy/frame_run.h"

#include <memory>
#include <new>
#include <utility>

namespace talvo {

CFrameRun::CFrameRun(const CMessageList& aList, DWORD aLongest) : m_List(aList) {
    for (size_t n = 0; n < aList.CountEntries() && m_dwBytes < ENOUGH; ++n) {
        const CMessageList::CEntry& entry = aList.GetEntry(n);
        if (entry.m_dwCopies == 0) {
            if (!AddChain_i(*entry.m_pChain, aLongest))
                return;
            continue;
        }
        if (m_dwPieces == MAX_PIECES || aLongest < CMessageList::MAX_COPIED)
            return;
        m_dwCount += entry.m_dwCopies;
        AddPiece_i(*entry.m_pChain, entry.m_pChain->GetTopLevelLength());
    }
}

CFrameRun::~CFrameRun() { std::destroy_n(Piece_i(0), m_dwPieces); }

// FALSE: there is no room for all its pieces, or it is too long.
BOOL CFrameRun::AddChain_i(const CCmMessageBlock& aChain, DWORD aLongest) {
    DWORD dwPieces = 1;
    for (const CCmMessageBlock* pMb = &aChain; pMb; pMb = pMb->GetNext())
        dwPieces += pMb->GetTopLevelLength() > 0;
    const DWORD dwLength = aChain.GetChainedLength();
    if (m_dwPieces + dwPieces > MAX_PIECES || m_dwChains == MAX_CHAINS || dwLength > aLongest)
        return FALSE;
    char* pHeader = m_Headers[m_dwChains++];
    const DWORD dwHeader = static_cast<DWORD>(WriteFrameHeader(pHeader, m_List.GetFraming(), dwLength) - pHeader);
    AddPiece_i(dwHeader, pHeader, DWORD{CCmMessageBlock::DONT_DELETE}, dwHeader);
    for (const CCmMessageBlock* pMb = &aChain; pMb; pMb = pMb->GetNext()) {
        if (pMb->GetTopLevelLength() > 0)
            AddPiece_i(*pMb, pMb->GetTopLevelLength());
    }
    ++m_dwCount;
    return TRUE;
}

template <class... Arguments>
void CFrameRun::AddPiece_i(Arguments&&... aArguments) {
    const CCmMessageBlock* pPiece = new (Piece_i(m_dwPieces)) CCmMessageBlock(std::forward<Arguments>(aArguments)...);
    m_dwBytes += pPiece->GetTopLevelLength();
    if (m_dwPieces > 0)
        Piece_i(m_dwPieces - 1)->Append(Piece_i(m_dwPieces));
    ++m_dwPieces;
}

DWORD CFrameRun::CountWithin(DWORD aBytes, DWORD& aRest) const {
    const DWORD dwHeader = FrameHeaderLength(m_List.GetFraming());
    DWORD dwCount = 0;
    for (size_t n = 0; dwCount < m_dwCount; ++n) {
        const CMessageList::CEntry& entry = m_List.GetEntry(n);
        const char* pFrame = entry.m_pChain->GetTopLevelReadPtr();
        for (DWORD i = 0; i == 0 || i < entry.m_dwCopies; ++i) {
            const DWORD dwPayload =
                entry.m_dwCopies > 0 ? ReadFrameLength(pFrame, m_List.GetFraming()) : entry.m_pChain->GetChainedLength();
            const DWORD dwFrame = dwHeader + dwPayload;
            if (dwFrame > aBytes) {
                aRest = aBytes > 0 ? dwFrame - aBytes : 0;
                return dwCount;
            }
            aBytes -= dwFrame;
            ++dwCount;
            if (entry.m_dwCopies > 0)  // the first block of a chain may have no bytes to point to
                pFrame += dwFrame;
        }
    }
    aRest = 0;
    return dwCount;
}

}  // namespace talvo
