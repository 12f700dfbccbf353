// Chains of message blocks.
#pragma once

#include <algorithm>
#include <string>

#include "talvo/base/chain_ptr.h"
#include "talvo/base/message_block.h"

// A DUPLICATED block with storage of its own that holds aText and has aSpace bytes left.
inline CCmMessageBlock* MakeBlock(const std::string& aText, DWORD aSpace = 0) {
    const auto dwLength = static_cast<DWORD>(aText.size());
    CCmMessageBlock mb(dwLength + aSpace);
    mb.Write(aText.data(), dwLength);
    return mb.DuplicateTopLevel();
}

// An empty block, followed by one for each piece; aNext returns the length of the next piece.
template <class Next>
CCmChainPtr MakeChain(const std::string& aBytes, Next aNext) {
    CCmChainPtr pChain(MakeBlock(""));
    CCmMessageBlock* pLast = pChain.get();
    for (size_t stAt = 0, stLength; stAt < aBytes.size(); stAt += stLength) {
        stLength = std::min<size_t>(aNext(), aBytes.size() - stAt);
        CCmMessageBlock* pPiece = MakeBlock(aBytes.substr(stAt, stLength));
        pLast->Append(pPiece);
        pLast = pPiece;
    }
    return pChain;
}
