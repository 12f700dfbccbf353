// One send made of scattered pieces.
#pragma once

#include <cstddef>

#include "talvo/base/export.h"
#include "talvo/base/message_block.h"
#include "talvo/transport/network_buffers.h"

namespace talvo {

// A chain of views on bytes in place, built without an allocation. The bytes must stay until the chain is cleared or destroyed.
// Small pieces are copied into one, so that many of them leave with one call. A transport advances the views and not the blocks
// behind them, so the sent bytes are GetLength() minus the unread ones. Some 20 KiB large, meant for the stack. One thread.
class TALVO_API CGatherChain {
public:
    static constexpr DWORD MAX_PIECES = CNetworkBuffers::MAX_PIECES;

    CGatherChain() {}
    ~CGatherChain() { Clear(); }
    CGatherChain(const CGatherChain&) = delete;
    CGatherChain& operator=(const CGatherChain&) = delete;

    // Adds the unread bytes of aChain after the first aSkip of them, at most a piece for each non-empty block. FALSE: there is
    // no room for all pieces, and none is added.
    BOOL Add(const CCmMessageBlock& aChain, DWORD aSkip = 0);

    // Null if there are no pieces. Owned by this object.
    CCmMessageBlock* GetHead() { return m_dwCount > 0 ? Piece(0) : nullptr; }
    // Bytes added, read or not.
    DWORD GetLength() const { return m_dwLength; }
    DWORD GetCount() const { return m_dwCount; }

    void Clear();

private:
    CCmMessageBlock* Piece(DWORD aIndex) { return reinterpret_cast<CCmMessageBlock*>(m_Storage) + aIndex; }
    BOOL IsJoined(DWORD aLength, DWORD aJoined) const { return aLength <= MAX_JOINED && aJoined + aLength <= sizeof m_Joined; }
    void AddPiece(const char* aData, DWORD aLength);

    static constexpr DWORD MAX_JOINED = 512;  // bytes up to which a copy is cheaper than a piece

    DWORD m_dwCount = 0;
    DWORD m_dwLength = 0;
    DWORD m_dwJoined = 0;       // bytes used of m_Joined
    BOOL m_bLastJoins = FALSE;  // the last piece is there, and can grow
    char m_Joined[16384];
    alignas(CCmMessageBlock) std::byte m_Storage[MAX_PIECES * sizeof(CCmMessageBlock)];  // the first m_dwCount are constructed
};

}  // namespace talvo
