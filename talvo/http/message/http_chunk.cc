#include "talvo/http/message/http_chunk.h"

#include <cstdio>

#include "talvo/base/block_chain.h"

namespace talvo {

CCmChainPtr make_block(std::string_view aText) {
    CCmChainPtr pBlock = NewBlock(static_cast<DWORD>(aText.size()));
    if (pBlock)
        pBlock->Write(aText.data(), static_cast<DWORD>(aText.size()));
    return pBlock;
}

CCmChainPtr make_chunk(const CCmMessageBlock& aPayload) {
    const unsigned long ulLength = aPayload.GetChainedLength();
    if (ulLength == 0)
        return nullptr;
    char szSize[sizeof("ffffffff\r\n")];
    const int nLength = std::snprintf(szSize, sizeof(szSize), "%lx\r\n", ulLength);
    CCmChainPtr pSize = make_block({szSize, static_cast<size_t>(nLength)});
    CCmChainPtr pPayload(aPayload.DuplicateChained());
    CCmChainPtr pEnd = make_block("\r\n");
    if (!pSize || !pPayload || !pEnd)
        return nullptr;
    CBlockChain chunk(std::move(pSize));
    chunk.Append(std::move(pPayload));
    chunk.Append(std::move(pEnd));
    return chunk.Take();
}

}  // namespace talvo
