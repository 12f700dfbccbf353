#include "talvo/transport/datagram.h"

namespace talvo {

CmResult CheckDatagram(const CCmMessageBlock& aData, DWORD& aLength) {
    uint64_t ullLength = 0;
    DWORD dwPieces = 0;
    for (const CCmMessageBlock* pBlock = &aData; pBlock; pBlock = pBlock->GetNext()) {
        ullLength += pBlock->GetTopLevelLength();
        dwPieces += pBlock->GetTopLevelLength() > 0;
    }
    if (ullLength > MAX_DATAGRAM_LENGTH || dwPieces > MAX_DATAGRAM_PIECES)
        return CM_ERROR_INVALID_ARG;
    aLength = static_cast<DWORD>(ullLength);
    return CM_OK;
}

}  // namespace talvo
