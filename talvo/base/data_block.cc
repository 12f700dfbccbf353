#include "talvo/base/data_block.h"

#include <cstring>
#include <new>

CmResult CCmDataBlock::CreateInstance(CCmDataBlock*& aDb, DWORD aSize, const char* aData) {
    if (aSize == 0)
        return CM_ERROR_INVALID_ARG;
    char* pMemory = static_cast<char*>(::operator new(sizeof(CCmDataBlock) + aSize, std::nothrow));
    if (!pMemory)
        return CM_ERROR_OUT_OF_MEMORY;
    aDb = new (pMemory) CCmDataBlock(aSize, pMemory + sizeof(CCmDataBlock));
    if (aData)
        std::memcpy(aDb->GetBasePtr(), aData, aSize);
    return CM_OK;
}

// Not a plain delete: the allocation is larger than the object, and was made as raw memory.
void CCmDataBlock::OnReferenceDestory() {
    this->~CCmDataBlock();
    ::operator delete(static_cast<void*>(this));
}
