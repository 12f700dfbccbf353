#include "tools/outbox.h"

namespace tool {

CmResult Outbox::Send(ICmTransport& aTransport, CCmMessageBlock& aChain) {
    if (m_pRest)
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
    if (!m_pRest)
        return CM_OK;
    const CmResult rv = aTransport.SendData(*m_pRest);
    if (rv == CM_OK)
        Clear();
    else if (rv == CM_ERROR_PARTIAL_DATA)
        m_pRest = m_pRest->ReclaimGarbage();
    return rv;
}

void Outbox::Clear() {
    if (m_pRest)
        m_pRest->DestroyChained();
    m_pRest = nullptr;
}

CmResult Outbox::Keep(const CCmMessageBlock& aChain) {
    CCmMessageBlock* pCopy = aChain.DuplicateChained();
    if (!pCopy)
        return CM_ERROR_OUT_OF_MEMORY;
    if (m_pRest)
        m_pRest->Append(pCopy);
    else
        m_pRest = pCopy;
    return CM_ERROR_PARTIAL_DATA;
}

}  // namespace tool
