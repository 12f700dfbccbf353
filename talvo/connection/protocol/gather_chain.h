// One send made of pieces that lie in different places.
#pragma once

#include <cstddef>

#include "talvo/base/export.h"
#include "talvo/base/message_block.h"

namespace talvo {

// A chain of views on bytes that stay where they are, built in place without an allocation. The bytes must stay until the chain
// is cleared or gone. Small pieces are copied into one, so that many of them leave with one call. A transport advances the
// views and not what they view, so a send that took a part is told by GetLength() minus what is still unread. Some 20 KiB
// large, meant for the stack. One thread.
class TALVO_API CGatherChain {
public:
    static constexpr DWORD MAX_PIECES = 64;  // what one system call of a transport gathers

    CGatherChain() {}
    ~CGatherChain() { Clear(); }
    CGatherChain(const CGatherChain&) = delete;
    CGatherChain& operator=(const CGatherChain&) = delete;

    // Adds the unread bytes of aChain behind the first aSkip of them, at most a piece for each block that has any. FALSE, and
    // nothing is added: there is no room for all of the pieces.
    BOOL Add(const CCmMessageBlock& aChain, DWORD aSkip = 0);

    // Null when there are no pieces. Owned by this object.
    CCmMessageBlock* GetHead() { return m_dwCount > 0 ? Piece(0) : nullptr; }
    // Bytes added, whether they have been read or not.
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
    BOOL m_bLastJoins = FALSE;  // the last piece lies there, and can be longer
    char m_Joined[16384];
    alignas(CCmMessageBlock) std::byte m_Storage[MAX_PIECES * sizeof(CCmMessageBlock)];  // the first m_dwCount are alive
};

}  // namespace talvo
