// A queue of messages.
#pragma once

#include <optional>
#include <vector>

#include "talvo/base/chain_ptr.h"
#include "talvo/base/with_memory.h"

namespace talvo {

// Owns the queued messages. A message is kept as a chain or, if it is small, as a copy in a block shared by many:
//
//   | length | payload ... | length | payload ... |      length: a CmDword in this machine's byte order
//
// A copy needs no allocation of its own. It lets the sender free and reuse its memory in the thread that allocated it. Used by
// one thread at a time.
class TALVO_API CMessageList {
public:
    static constexpr CmDword MAX_COPIED = 1024;  // bytes of payload up to which a copy is cheaper

    CMessageList() = default;
    CMessageList(const CMessageList&) = delete;
    CMessageList& operator=(const CMessageList&) = delete;

    // FALSE: memory ran out, and aChain is deleted.
    CmBool Add(CCmChainPtr aChain) {
        return WithMemory([&] { m_Chains.push_back(std::move(aChain)); });
    }
    // Copies aMessage, of aLength <= MAX_COPIED bytes. FALSE: memory ran out.
    CmBool AddCopy(const CCmMessageBlock& aMessage, CmDword aLength);

    CmBool IsEmpty() const { return m_stFirst == m_Chains.size(); }
    CmBool HasSeveral() const;

    // TRUE: the first message is a copy. There must be one.
    CmBool IsFrontCopied() const { return IsShared(*m_Chains[m_stFirst]); }
    // The first message. It stays first, as far as it was consumed, until Pop. There must be one.
    CCmMessageBlock& Front();
    void Pop();
    // Removes and returns the first message. Only if no message is a copy.
    CCmChainPtr TakeChain();

    void Swap(CMessageList& aOther) {
        m_Chains.swap(aOther.m_Chains);
        std::swap(m_stFirst, aOther.m_stFirst);
    }
    void Clear();

private:
    static CmBool IsShared(const CCmMessageBlock& aBlock) { return (aBlock.GetFlag() & CCmMessageBlock::READ_LOCKED) != 0; }
    static CmDword LengthOfFirst(const CCmMessageBlock& aShared);
    CCmMessageBlock* SpaceFor(CmDword aCount);

    std::vector<CCmChainPtr> m_Chains;  // from m_stFirst on; shared blocks are READ_LOCKED
    size_t m_stFirst = 0;
    std::optional<CCmMessageBlock> m_View;  // of the first message, if that is a copy
};

}  // namespace talvo
