// A chain of message blocks that grows at its end.
#pragma once

#include <utility>

#include "talvo/base/chain_ptr.h"
#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// A new block of its own, with room for aSize bytes; null: memory ran out.
TALVO_API CCmChainPtr NewBlock(CmDword aSize);

// Blocks with the unread bytes of aChain only: of foreign memory no others are copied, and there is no space behind them. Null:
// there are none, or memory ran out.
TALVO_API CCmChainPtr DuplicateUnread(const CCmMessageBlock& aChain);

// A queue of bytes: they wait for room in a transport, or for the rest of a message. Owns its blocks, all of them DUPLICATED,
// and frees read ones. An append takes constant time for each block. One thread at a time.
class TALVO_API CBlockChain {
public:
    CBlockChain() = default;
    explicit CBlockChain(CCmChainPtr aChain) { Append(std::move(aChain)); }
    CBlockChain(CBlockChain&& aRight) noexcept : CBlockChain(aRight.Take()) {}
    CBlockChain& operator=(CBlockChain&& aRight) noexcept;

    CmBool IsEmpty() const { return !m_pHead; }
    // Null: the chain is empty. Owned by this object; the caller may read and write, but not free.
    CCmMessageBlock* GetHead() const { return m_pHead.get(); }
    CCmMessageBlock* GetTail() const { return m_pTail; }
    CmDword GetLength() const { return m_pHead ? m_pHead->GetChainedLength() : 0; }

    // Null adds nothing.
    void Append(CCmChainPtr aChain);
    // Cuts the chain behind aCount unread bytes and returns the second part; null: there is none, or memory ran out.
    CCmChainPtr Cut(CmDword aCount);
    // Drops blocks without unread bytes from the front.
    void DropRead();
    CCmChainPtr Take();
    void Clear() { Take(); }

private:
    CCmChainPtr m_pHead;
    CCmMessageBlock* m_pTail = nullptr;  // the last block
};

}  // namespace talvo
