#include "talvo/http/message/http_chunk.h"

#include <cstdio>

namespace talvo {

namespace {

constexpr std::string_view LINE_END = "\r\n";

CCmMessageBlock* make_block(std::string_view aText) {
    CCmMessageBlock block(static_cast<DWORD>(aText.size()));
    if (block.Write(aText.data(), static_cast<DWORD>(aText.size())) != CM_OK)
        return nullptr;
    return block.DuplicateTopLevel();
}

}  // namespace

CCmMessageBlock* make_chunk(const CCmMessageBlock& aPayload) {
    const unsigned long ulLength = aPayload.GetChainedLength();
    if (ulLength == 0)
        return nullptr;
    char szSize[sizeof("ffffffff\r\n")];
    const int nLength = std::snprintf(szSize, sizeof(szSize), "%lx\r\n", ulLength);
    CCmMessageBlock* pChunk = make_block({szSize, static_cast<size_t>(nLength)});
    CCmMessageBlock* pPayload = aPayload.DuplicateChained();
    CCmMessageBlock* pEnd = make_block(LINE_END);
    const BOOL bGood = pChunk && pPayload && pEnd;
    for (CCmMessageBlock* pPart : {pPayload, pEnd}) {
        if (bGood)
            pChunk->Append(pPart);
        else if (pPart)
            pPart->DestroyChained();
    }
    if (!bGood && pChunk)
        pChunk->DestroyChained();
    return bGood ? pChunk : nullptr;
}

}  // namespace talvo
