// Messages of a forward session in one send.
#pragma once

#include <cstddef>

#include "talvo/session/forward_message.h"
#include "talvo/transport/network_buffers.h"

namespace talvo {

// A chain of views that share the storage of messages, built without an allocation. Messages that lie behind each other are one
// piece. Some 4 KiB large, meant for the stack. One thread.
class TALVO_API CForwardChain {
public:
    static constexpr DWORD MAX_PIECES = CNetworkBuffers::MAX_PIECES;
    static constexpr DWORD MAX_MESSAGES = 256;
    static constexpr DWORD MAX_PAYLOAD = 65536;

    explicit CForwardChain(EForwardFraming aFraming) : m_dwSkip(static_cast<DWORD>(aFraming)) {}
    ~CForwardChain();
    CForwardChain(const CForwardChain&) = delete;
    CForwardChain& operator=(const CForwardChain&) = delete;

    // FALSE: there is no room for all pieces of aMessage, or its payload and others are together too long; none is added.
    BOOL Add(const CForwardMessage& aMessage);

    BOOL IsEmpty() const { return m_dwMessages == 0; }
    CCmMessageBlock& GetHead() { return *Piece_i(0); }  // not empty
    // The length of each message, with its framing.
    const DWORD* GetLengths() const { return m_dwLengths; }
    DWORD GetCount() const { return m_dwMessages; }

private:
    CCmMessageBlock* Piece_i(DWORD aIndex) { return reinterpret_cast<CCmMessageBlock*>(m_Storage) + aIndex; }
    void AddPiece_i(const CCmRefPtrT<CCmDataBlock>& aBlock, DWORD aOffset, DWORD aLength);
    void Link_i();

    const DWORD m_dwSkip;
    DWORD m_dwPieces = 0;
    DWORD m_dwMessages = 0;
    DWORD m_dwPayload = 0;
    DWORD m_dwLengths[MAX_MESSAGES];
    alignas(CCmMessageBlock) std::byte m_Storage[MAX_PIECES * sizeof(CCmMessageBlock)];  // the first m_dwPieces are constructed
};

}  // namespace talvo
