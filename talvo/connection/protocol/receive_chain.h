// Received bytes of incomplete messages.
#pragma once

#include "talvo/base/block_chain.h"

namespace talvo {

// Every byte is copied once on arrival, into the chain's own blocks: a peer that sends single bytes costs little more than
// those bytes. Bytes taken out are viewed or cut, not copied. Empty, it holds no memory.
class TALVO_API CReceiveChain {
public:
    CReceiveChain() = default;
    CReceiveChain(const CReceiveChain&) = delete;
    CReceiveChain& operator=(const CReceiveChain&) = delete;

    CmDword GetLength() const { return m_dwLength; }

    // Copies the whole of aData. aMissing: the bytes that the current message still lacks, as far as known; storage for them is
    // allocated early enough. CM_ERROR_OUT_OF_MEMORY: bytes are lost, so drop the chain.
    CmResult Append(const CCmMessageBlock& aData, CmDword aMissing);

    // Copies the first aCount bytes without consuming them. FALSE: there are fewer.
    CmBool Peek(void* aDst, CmDword aCount) const;

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
    CCmChainPtr CutFront_i(CmDword aCount);

    CBlockChain m_Chain;
    CmDword m_dwLength = 0;  // unread bytes
};

}  // namespace talvo
