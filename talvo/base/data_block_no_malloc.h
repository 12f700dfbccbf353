// A read and write position over memory of the caller.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// Owns nothing; the memory must outlive it. One thread.
class TALVO_API CCmDataBlockNoMalloc {
public:
    CCmDataBlockNoMalloc(char* aBuffer, DWORD aLength)
        : m_pBeginPtr(aBuffer), m_pEndPtr(aBuffer ? aBuffer + aLength : nullptr), m_pReadPtr(aBuffer), m_pWritePtr(aBuffer) {}

    // Both move their position by what they did and store that in the last argument, if given. CM_ERROR_PARTIAL_DATA: less than
    // aCount. CM_ERROR_INVALID_ARG: no aDst or aSrc. CM_ERROR_NOT_INITIALIZED: made over no buffer.

    // Does not know the end of the buffer, except when it stands exactly there, where it gives 0 bytes: from anywhere else it
    // serves aCount bytes, however many remain. The caller bounds aCount by what it knows to be there.
    CmResult Read(void* aDst, DWORD aCount, DWORD* aRead = nullptr);

    // Stops at the end of the buffer.
    CmResult Write(const void* aSrc, DWORD aCount, DWORD* aWritten = nullptr);

    // How far the positions have come from the buffer's begin.
    DWORD GetReadLength() const { return static_cast<DWORD>(m_pReadPtr - m_pBeginPtr); }
    DWORD GetWrittenLength() const { return static_cast<DWORD>(m_pWritePtr - m_pBeginPtr); }

private:
    char* m_pBeginPtr;
    char* m_pEndPtr;
    char* m_pReadPtr;
    char* m_pWritePtr;
};
