// Received bytes of incomplete messages.
#pragma once

#include "talvo/base/block_chain.h"

namespace talvo {

// Bytes come in two ways. Append copies them into the chain's own blocks: a peer that sends single bytes costs little more than
// those bytes. Borrow only points to them for the time of an upcall, so that messages which arrived whole are passed on without
// a copy; Keep then copies the rest. Bytes taken out of the own blocks are viewed or cut, not copied. Empty, it holds no
// memory.
//
//   | own blocks, copied ... | borrowed ... |
class TALVO_API CReceiveChain {
public:
    CReceiveChain() = default;
    CReceiveChain(const CReceiveChain&) = delete;
    CReceiveChain& operator=(const CReceiveChain&) = delete;

    CmDword GetLength() const { return m_dwOwn + m_dwBorrowed; }

    // Copies the whole of aData. aMissing: the bytes that the current message still lacks, as far as known; storage for them is
    // allocated early enough. CM_ERROR_OUT_OF_MEMORY: bytes are lost, so drop the chain.
    CmResult Append(const CCmMessageBlock& aData, CmDword aMissing);

    // Adds the unread bytes of aData without a copy. They must stay valid and unchanged until Keep or Clear. Copies instead if
    // aData has several blocks. CM_ERROR_OUT_OF_MEMORY as Append.
    CmResult Borrow(const CCmMessageBlock& aData);
    // Copies the borrowed bytes that are left, as Append does. aNeeded: the length of the current message, as far as known.
    CmResult Keep(CmDword aNeeded);

    // Copies the first aCount bytes without consuming them. FALSE: there are fewer.
    CmBool Peek(void* aDst, CmDword aCount) const;

    // The borrowed bytes, if there are no others. aLength (out): their number, 0 if there are others.
    const char* GetBorrowed(CmDword& aLength) const {
        aLength = m_dwOwn == 0 ? m_dwBorrowed : 0;
        return m_pBorrowed;
    }

    // Drops the first aCount bytes, which must exist.
    void Skip(CmDword aCount);

    // Removes the first aCount bytes, which must exist, and passes them to aUse as a block. aUse may do anything to this chain,
    // even clear it, but not destroy it. CM_ERROR_OUT_OF_MEMORY: aUse was not called.
    template <class Use>
    CmResult Take(CmDword aCount, Use aUse) {
        if (aCount == 0) {
            CCmMessageBlock nothing(CmDword{0});
            aUse(nothing);
            return CM_OK;
        }
        if (m_dwOwn == 0) {
            CCmMessageBlock slice(aCount, m_pBorrowed, CCmMessageBlock::DONT_DELETE, aCount);
            Skip(aCount);
            aUse(slice);
            return CM_OK;
        }
        if (m_dwOwn < aCount && Join_i(aCount - m_dwOwn) != CM_OK)
            return CM_ERROR_OUT_OF_MEMORY;
        if (aCount <= HeadLength_i()) {
            CCmMessageBlock slice(*m_Chain.GetHead(), aCount);
            Skip(aCount);
            aUse(slice);
            return CM_OK;
        }
        const CCmChainPtr pFront = CutFront_i(aCount);
        if (!pFront)
            return CM_ERROR_OUT_OF_MEMORY;
        aUse(*pFront);
        return CM_OK;
    }

    void Clear();

private:
    CmDword HeadLength_i() const { return m_Chain.IsEmpty() ? 0 : m_Chain.GetHead()->GetTopLevelLength(); }
    CmBool AddBlock_i(CmDword aSize);
    CmResult Copy_i(const char* aFrom, CmDword aCount, CmDword& aMissing);
    CmResult Join_i(CmDword aCount);
    void SkipOwn_i(CmDword aCount);
    CCmChainPtr CutFront_i(CmDword aCount);

    CBlockChain m_Chain;
    CmDword m_dwOwn = 0;  // unread bytes of m_Chain
    CmDword m_dwBorrowed = 0;
    const char* m_pBorrowed = nullptr;
};

}  // namespace talvo
