// The frames at the front of a list of messages.
#pragma once

#include <cstddef>

#include "talvo/transport/message_list.h"
#include "talvo/transport/network_buffers.h"

namespace talvo {

// A chain of views on queued messages as frames, for one send. Blocks that are shared by copies are frames already; a header
// before each chain makes it one. Built without an allocation, some 4 KiB large, meant for the stack. The list must not change
// meanwhile. One thread.
class CFrameRun final : public IFrameLengths {
public:
    // As many of the first messages as one send should have; none that is longer than aLongest bytes.
    CFrameRun(const CMessageList& aList, CmDword aLongest);
    ~CFrameRun();
    CFrameRun(const CFrameRun&) = delete;
    CFrameRun& operator=(const CFrameRun&) = delete;

    CmBool IsEmpty() const { return m_dwCount == 0; }
    CCmMessageBlock& GetFrames() { return *Piece_i(0); }  // not empty; to be consumed

    CmDword GetCount() const override { return m_dwCount; }
    CmDword CountWithin(CmDword aBytes, CmDword& aRest) const override;

private:
    static constexpr CmDword MAX_PIECES = CNetworkBuffers::MAX_PIECES;
    static constexpr CmDword MAX_CHAINS = MAX_PIECES / 2;  // with a header each
    static constexpr CmDword ENOUGH = 65536;               // bytes

    CCmMessageBlock* Piece_i(CmDword aIndex) { return reinterpret_cast<CCmMessageBlock*>(m_Storage) + aIndex; }
    CmBool AddChain_i(const CCmMessageBlock& aChain, CmDword aLongest);
    template <class... Arguments>
    void AddPiece_i(Arguments&&... aArguments);

    const CMessageList& m_List;
    CmDword m_dwCount = 0;  // frames
    CmDword m_dwBytes = 0;
    CmDword m_dwPieces = 0;
    CmDword m_dwChains = 0;
    char m_Headers[MAX_CHAINS][MAX_FRAME_HEADER];
    alignas(CCmMessageBlock) std::byte m_Storage[MAX_PIECES * sizeof(CCmMessageBlock)];  // the first m_dwPieces are constructed
};

}  // namespace talvo
