// A queue of messages.
#pragma once

#include <optional>
#include <vector>

#include "talvo/base/chain_ptr.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/frame_header.h"

namespace talvo {

// Owns the queued messages. A message is kept as a chain or, if it is small, as a copy in a block shared by many:
//
//   | header | payload ... | header | payload ... |      header: of a frame
//
// A copy needs no allocation of its own. It lets the sender free and reuse its memory in the thread that allocated it. The
// header is that of the connection's frames, so that the shared blocks can be sent as they are. Used by one thread at a time.
class TALVO_API CMessageList {
public:
    static constexpr CmDword MAX_COPIED = 1024;                       // bytes of payload up to which a copy is cheaper
    static constexpr CmDword MOST_FRAMES = CCmDataBlock::BURST_SIZE;  // bytes of frames that are copied together

    // A chain, or a block shared by so many copies.
    struct CEntry {
        CCmChainPtr m_pChain;
        CmDword m_dwCopies;  // 0: a chain
    };

    CMessageList() = default;
    CMessageList(const CMessageList&) = delete;
    CMessageList& operator=(const CMessageList&) = delete;

    // The header of copies; LENGTH at first. Only while the list is empty. Lists that are swapped have the same.
    void SetFraming(IFramedSending::EFraming aFraming) { m_Framing = aFraming; }
    IFramedSending::EFraming GetFraming() const { return m_Framing; }

    // FALSE: memory ran out, and aChain is deleted.
    CmBool Add(CCmChainPtr aChain) { return AddEntry(std::move(aChain), 0); }
    // Copies aMessage, of aLength <= MAX_COPIED bytes. FALSE: memory ran out.
    CmBool AddCopy(const CCmMessageBlock& aMessage, CmDword aLength);
    // Copies aCount frames of this list's framing, aLength <= MOST_FRAMES bytes, none beyond MAX_COPIED. FALSE: memory ran out.
    CmBool AddFrames(const char* aFrames, CmDword aLength, CmDword aCount);

    CmBool IsEmpty() const { return m_stFirst == m_Entries.size(); }
    CmBool HasSeveral() const;

    // TRUE: the first message is a copy. There must be one.
    CmBool IsFrontCopied() const { return m_Entries[m_stFirst].m_dwCopies > 0; }
    // The first message. It stays first, as far as it was consumed, until Pop. There must be one.
    CCmMessageBlock& Front();
    // TRUE: the first message may have been consumed in part.
    CmBool IsFrontInUse() const { return m_bFrontInUse; }
    void Pop();
    // Removes the first aCount messages, as Pop does. Returns their unread bytes. aBlocks (out): adds the blocks of those that
    // are chains.
    uint64_t PopSeveral(CmDword aCount, CmDword& aBlocks);
    // Removes and returns the first message. Only if no message is a copy.
    CCmChainPtr TakeChain();

    // The entries in order, the first at 0.
    size_t CountEntries() const { return m_Entries.size() - m_stFirst; }
    const CEntry& GetEntry(size_t aIndex) const { return m_Entries[m_stFirst + aIndex]; }

    void Swap(CMessageList& aOther) {
        m_Entries.swap(aOther.m_Entries);
        std::swap(m_stFirst, aOther.m_stFirst);
    }
    void Clear();

private:
    CmBool AddEntry(CCmChainPtr aChain, CmDword aCopies) {
        return WithMemory([&] { m_Entries.push_back({std::move(aChain), aCopies}); });
    }
    CEntry* SpaceFor(CmDword aCount);
    CmDword LengthOfFirst() const { return ReadFrameLength(m_Entries[m_stFirst].m_pChain->GetTopLevelReadPtr(), m_Framing); }

    std::vector<CEntry> m_Entries;  // from m_stFirst on
    size_t m_stFirst = 0;
    IFramedSending::EFraming m_Framing = IFramedSending::LENGTH;
    CmBool m_bFrontInUse = CM_FALSE;
    std::optional<CCmMessageBlock> m_View;  // of the first message, if that is a copy
};

}  // namespace talvo
