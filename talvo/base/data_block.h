// The shared storage behind message blocks.
#pragma once

#include <atomic>

#include "talvo/base/export.h"
#include "talvo/base/reference_control.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// Bytes of a fixed size, in one allocation with this header, shared by count. The count may change in any thread; who writes
// the bytes, and when, is agreed by those who hold references.
class TALVO_API CCmDataBlock final : public ICmReferenceControl {
public:
    // Blocks of exactly this size are kept for the next of their kind, up to 1 MiB of them: make those of this size that are
    // many and short-lived.
    static constexpr DWORD BURST_SIZE = 16384;

    // Makes a block of aSize bytes with one reference for the caller and fills it from aData, if given; without it the bytes
    // are not initialised. CM_ERROR_INVALID_ARG: aSize is 0. CM_ERROR_OUT_OF_MEMORY. aDb is untouched unless CM_OK.
    static CmResult CreateInstance(CCmDataBlock*& aDb, DWORD aSize, const char* aData);

    DWORD AddReference() override { return m_dwReferences.fetch_add(1, std::memory_order_relaxed) + 1; }
    DWORD ReleaseReference() override {
        // Whoever takes the last one sees what all others did to the bytes before they let go.
        const DWORD dwLeft = m_dwReferences.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (dwLeft == 0)
            OnReferenceDestory();
        return dwLeft;
    }

    char* GetBasePtr() const { return m_pBase; }
    DWORD GetLength() const { return m_dwLength; }

private:
    CCmDataBlock(DWORD aSize, char* aBase) : m_dwLength(aSize), m_pBase(aBase) {}
    ~CCmDataBlock() override = default;

    void OnReferenceDestory();

    std::atomic<DWORD> m_dwReferences{1};
    const DWORD m_dwLength;
    char* const m_pBase;  // directly behind this object
};
