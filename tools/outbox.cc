#include "tools/outbox.h"

namespace tool {

CmResult Outbox::Send(ICmTransport& aTransport, CCmMessageBlock& aChain) {
    if (!m_Rest.empty())
        return Keep(aChain);
    const CmResult rv = aTransport.SendData(aChain);
    return rv == CM_ERROR_PARTIAL_DATA ? Keep(aChain) : rv;
}

CmResult Outbox::Send(ICmTransport& aTransport, std::string_view aBytes) {
    const auto dwLength = static_cast<DWORD>(aBytes.size());
    CCmMessageBlock block(dwLength, aBytes.data(), CCmMessageBlock::DONT_DELETE, dwLength);
    return Send(aTransport, block);
}

CmResult Outbox::SendRest(ICmTransport& aTransport) {
    while (!m_Rest.empty()) {
        const CmResult rv = aTransport.SendData(*m_Rest.front());
        if (rv != CM_OK)
            return rv;
        m_Rest.pop_front();
    }
    return CM_OK;
}

CmResult Outbox::Keep(const CCmMessageBlock& aChain) {
    CCmChainPtr pCopy(aChain.DuplicateChained());
    if (!pCopy)
        return CM_ERROR_OUT_OF_MEMORY;
    try {
        m_Rest.push_back(std::move(pCopy));
    } catch (const std::bad_alloc&) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    return CM_ERROR_PARTIAL_DATA;
}

}  // namespace tool
