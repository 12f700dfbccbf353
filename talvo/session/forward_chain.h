// Messages of a forward session in one send.
#pragma once

#include <cstddef>

#include "talvo/session/forward_log.h"
#include "talvo/transport/network_buffers.h"

namespace talvo {

// A chain of views that share the storage of messages, built without an allocation. Messages that lie behind each other are one
// piece. Some 4 KiB large, meant for the stack. One thread.
class TALVO_API CForwardChain {
public:
    static constexpr DWORD MAX_PIECES = CNetworkBuffers::MAX_PIECES;
    static constexpr DWORD MAX_PAYLOAD = 65536;

    explicit CForwardChain(EForwardFraming aFraming) : m_Framing(aFraming) {}
    ~CForwardChain();
    CForwardChain(const CForwardChain&) = delete;
    CForwardChain& operator=(const CForwardChain&) = delete;

    // FALSE: there is no room for all pieces of aMessage, its payload and others are together too long, or its storage does not
    // have the header. None is added.
    BOOL Add(const CForwardMessage& aMessage);
    // Adds the messages from aNumber on, as many as fit. Returns their number.
    DWORD AddFrom(const CForwardLog& aLog, uint64_t aNumber);

    BOOL IsEmpty() const { return m_dwPieces == 0; }
    CCmMessageBlock& GetHead() { return *Piece_i(0); }  // not empty

private:
    CCmMessageBlock* Piece_i(DWORD aIndex) { return reinterpret_cast<CCmMessageBlock*>(m_Storage) + aIndex; }
    void AddPiece_i(const CCmRefPtrT<CCmDataBlock>& aBlock, DWORD aOffset, DWORD aLength);
    void Link_i();

    const EForwardFraming m_Framing;
    DWORD m_dwPieces = 0;
    DWORD m_dwPayload = 0;
    alignas(CCmMessageBlock) std::byte m_Storage[MAX_PIECES * sizeof(CCmMessageBlock)];  // the first m_dwPieces are constructed
};

// The lengths of the frames of a chain whose messages are not consecutive. One thread.
class TALVO_API CForwardLengths final : public IFrameLengths {
public:
    static constexpr DWORD MOST = 256;

    BOOL IsFull() const { return m_dwCount == MOST; }
    void Add(DWORD aLength) { m_dwLengths[m_dwCount++] = aLength; }  // not full
    DWORD GetCount() const override { return m_dwCount; }
    DWORD CountWithin(DWORD aBytes, DWORD& aRest) const override;

private:
    DWORD m_dwCount = 0;
    DWORD m_dwLengths[MOST];
};

}  // namespace talvo
