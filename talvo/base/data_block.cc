#include "talvo/base/data_block.h"

#include <array>
#include <cstring>
#include <mutex>
#include <new>

#include "talvo/base/memory_reuse.h"

namespace {

// Blocks of a burst go from thread to thread, and the general allocator gives them back to the system as soon as they have
// arrived: to get their pages anew costs more than to fill them. So those of the size that bursts are made of are kept, as many
// as a proxy lets wait.
class CSpareMemory {
public:
    void* Take() {
        const std::lock_guard guard(m_Mutex);
        return m_nCount > 0 ? m_Spare[--m_nCount] : nullptr;
    }
    bool Give(void* aMemory) {
        const std::lock_guard guard(m_Mutex);
        if (m_nCount == m_Spare.size())
            return false;
        m_Spare[m_nCount++] = aMemory;
        return true;
    }

private:
    std::mutex m_Mutex;
    size_t m_nCount = 0;
    std::array<void*, 64> m_Spare{};
};

constinit CSpareMemory s_Spare;  // what it holds is kept to the end: blocks may end late

bool IsSpared(DWORD aSize) { return talvo::REUSES_MEMORY && aSize == CCmDataBlock::BURST_SIZE; }

}  // namespace

CmResult CCmDataBlock::CreateInstance(CCmDataBlock*& aDb, DWORD aSize, const char* aData) {
    if (aSize == 0)
        return CM_ERROR_INVALID_ARG;
    void* pSpare = IsSpared(aSize) ? s_Spare.Take() : nullptr;
    char* pMemory = static_cast<char*>(pSpare ? pSpare : ::operator new(sizeof(CCmDataBlock) + aSize, std::nothrow));
    if (!pMemory)
        return CM_ERROR_OUT_OF_MEMORY;
    aDb = new (pMemory) CCmDataBlock(aSize, pMemory + sizeof(CCmDataBlock));
    if (aData)
        std::memcpy(aDb->GetBasePtr(), aData, aSize);
    return CM_OK;
}

// Not a plain delete: the allocation is larger than the object, and was made as raw memory.
void CCmDataBlock::OnReferenceDestory() {
    const bool bSpared = IsSpared(GetLength());
    this->~CCmDataBlock();
    if (!bSpared || !s_Spare.Give(this))
        ::operator delete(static_cast<void*>(this));
}
