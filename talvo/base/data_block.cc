#include "talvo/base/data_block.h"

#include <cstring>
#include <new>

#include "talvo/base/memory_reuse.h"

namespace {

// The blocks of a burst travel between threads, and the general allocator returns their pages to the system as soon as they are
// freed. Getting new pages costs more than filling them. So blocks of the burst size are kept for reuse, as many as a proxy
// queues.
constinit talvo::CSpares<64> s_Spares;

bool IsSpared(DWORD aSize) { return talvo::REUSES_MEMORY && aSize == CCmDataBlock::BURST_SIZE; }

}  // namespace

CmResult CCmDataBlock::CreateInstance(CCmDataBlock*& aDb, DWORD aSize, const char* aData) {
    if (aSize == 0)
        return CM_ERROR_INVALID_ARG;
    void* pSpare = IsSpared(aSize) ? s_Spares.Take() : nullptr;
    char* pMemory = static_cast<char*>(pSpare ? pSpare : ::operator new(sizeof(CCmDataBlock) + aSize, std::nothrow));
    if (!pMemory)
        return CM_ERROR_OUT_OF_MEMORY;
    aDb = new (pMemory) CCmDataBlock(aSize, pMemory + sizeof(CCmDataBlock));
    if (aData)
        std::memcpy(aDb->GetBasePtr(), aData, aSize);
    return CM_OK;
}

// Not a plain delete: the allocation is raw memory and larger than the object.
void CCmDataBlock::OnReferenceDestory() {
    const bool bSpared = IsSpared(GetLength());
    this->~CCmDataBlock();
    if (!bSpared || !s_Spares.Give(this))
        ::operator delete(static_cast<void*>(this));
}
