#include "talvo/transport/send_bytes.h"

#include "talvo/base/chain_ptr.h"

namespace {

CmResult Send(ICmTransport& aTransport, CCmMessageBlock& aData, DWORD* aTaken) {
    CCmTransportParameter para;
    const CmResult rv = aTransport.SendData(aData, &para);
    if (aTaken)
        *aTaken = para.m_dwHaveSent;
    return rv;
}

}  // namespace

CmResult cm_send_bytes(ICmTransport& aTransport, const void* aData, DWORD aLength, DWORD* aTaken) {
    if (aTaken)
        *aTaken = 0;
    if (!aData && aLength > 0)
        return CM_ERROR_INVALID_ARG;
    CCmMessageBlock block(aLength, static_cast<const char*>(aData), CCmMessageBlock::DONT_DELETE, aLength);
    return Send(aTransport, block, aTaken);
}

CmResult cm_send_shared(ICmTransport& aTransport, const CCmMessageBlock& aData, DWORD* aTaken) {
    if (aTaken)
        *aTaken = 0;
    const CCmChainPtr pCopy(aData.DuplicateChained());
    return pCopy ? Send(aTransport, *pCopy, aTaken) : CM_ERROR_OUT_OF_MEMORY;
}
