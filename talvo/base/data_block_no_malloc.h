// A read position and a write position over the caller's memory.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// Owns nothing: the memory must outlive it. One thread.
class TALVO_API CCmDataBlockNoMalloc {
public:
    // A buffer of aLength bytes; both positions are at its start.
    CCmDataBlockNoMalloc(char* aBuffer, CmDword aLength)
        : m_pBeginPtr(aBuffer), m_pEndPtr(aBuffer ? aBuffer + aLength : nullptr), m_pReadPtr(aBuffer), m_pWritePtr(aBuffer) {}

    // Both advance their position. aRead, aWritten (out, may be null): the number of bytes done. CM_ERROR_PARTIAL_DATA: less
    // than aCount. CM_ERROR_INVALID_ARG: aDst or aSrc is null. CM_ERROR_NOT_INITIALIZED: there is no buffer.

    // Does not check the end of the buffer, except that exactly at the end it copies 0 bytes. From any other position it copies
    // aCount bytes, however many remain: the caller must limit aCount.
    CmResult Read(void* aDst, CmDword aCount, CmDword* aRead = nullptr);

    // Stops at the end of the buffer.
    CmResult Write(const void* aSrc, CmDword aCount, CmDword* aWritten = nullptr);

    // The distances of the positions from the start of the buffer.
    CmDword GetReadLength() const { return static_cast<CmDword>(m_pReadPtr - m_pBeginPtr); }
    CmDword GetWrittenLength() const { return static_cast<CmDword>(m_pWritePtr - m_pBeginPtr); }

private:
    char* m_pBeginPtr;
    char* m_pEndPtr;
    char* m_pReadPtr;
    char* m_pWritePtr;
};
