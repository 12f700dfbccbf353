// The shared storage of message blocks.
#pragma once

#include <atomic>

#include "talvo/base/export.h"
#include "talvo/base/reference_control.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// Bytes of a fixed size in one allocation with this header, shared by reference count. Any thread may change the count. The
// holders of references must agree which of them writes the bytes, and when.
class TALVO_API CCmDataBlock final : public ICmReferenceControl {
public:
    // Freed blocks of exactly this size are kept for reuse, up to 1 MiB in all. Use this size for blocks that are many and
    // short-lived.
    static constexpr CmDword BURST_SIZE = 16384;

    // aDb (out): a block of aSize bytes with one reference for the caller, unchanged unless CM_OK. The bytes are copied from
    // aData, or not initialised if it is null. CM_ERROR_INVALID_ARG: aSize is 0. CM_ERROR_OUT_OF_MEMORY.
    static CmResult CreateInstance(CCmDataBlock*& aDb, CmDword aSize, const char* aData);

    CmDword AddReference() override { return m_dwReferences.fetch_add(1, std::memory_order_relaxed) + 1; }
    CmDword ReleaseReference() override {
        // Acquire and release: the thread that drops the last reference sees all writes of the other holders.
        const CmDword dwLeft = m_dwReferences.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (dwLeft == 0)
            OnReferenceDestory();
        return dwLeft;
    }

    // The same for aCount references, at least 1, in one step. The caller knows the references that it releases.
    void AddReferences(CmDword aCount) { m_dwReferences.fetch_add(aCount, std::memory_order_relaxed); }
    void ReleaseReferences(CmDword aCount) {
        if (m_dwReferences.fetch_sub(aCount, std::memory_order_acq_rel) == aCount)
            OnReferenceDestory();
    }

    char* GetBasePtr() const { return m_pBase; }      // the first byte
    CmDword GetLength() const { return m_dwLength; }  // the size that it was made with

private:
    CCmDataBlock(CmDword aSize, char* aBase) : m_dwLength(aSize), m_pBase(aBase) {}
    ~CCmDataBlock() override = default;

    void OnReferenceDestory();

    std::atomic<CmDword> m_dwReferences{1};
    const CmDword m_dwLength;
    char* const m_pBase;  // directly behind this object
};
