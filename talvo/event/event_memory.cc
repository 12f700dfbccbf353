#include "talvo/event/event_memory.h"

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <new>
#include <utility>

#include "talvo/base/memory_reuse.h"
#include "talvo/event/event_batch.h"

namespace talvo {

namespace {

constexpr size_t SLAB_ALIGNMENT = 4096;
constexpr size_t SLAB_SIZE =
    SLAB_ALIGNMENT - 64;  // leaves the general allocator room for its header, so that slabs stay adjacent
constexpr size_t BLOCK_ALIGNMENT = alignof(std::max_align_t);
constexpr size_t LARGEST = 2000;  // bytes, two blocks to a slab; a larger block has a slab of its own
constexpr size_t MOST_SPARES = 64;

// The header of a slab. The blocks follow it.
struct alignas(BLOCK_ALIGNMENT) CSlab {
    explicit CSlab(int aBlocks) : m_nOut(aBlocks) {}

    // Blocks in use. While a slab is open, its thread counts the blocks that it hands out and adds them only when it closes the
    // slab. Until then this is zero or negative.
    std::atomic<int> m_nOut;
    bool m_bOne = false;  // a slab with a single block
};

constinit CSpares<MOST_SPARES> s_Spares;

void* NewSlabMemory(size_t aSize) { return ::operator new (aSize, std::align_val_t{SLAB_ALIGNMENT}, std::nothrow); }

void End(CSlab* aSlab) {
    const bool bSpare = !aSlab->m_bOne;
    aSlab->~CSlab();
    if (!bSpare || !s_Spares.Give(aSlab))
        ::operator delete (aSlab, std::align_val_t{SLAB_ALIGNMENT});
}

void GiveBack(CSlab* aSlab, int aBlocks) {
    if (aSlab->m_nOut.fetch_sub(aBlocks, std::memory_order_acq_rel) == aBlocks)
        End(aSlab);
}

void* TakeOne(size_t aSize) {
    void* pMemory = NewSlabMemory(sizeof(CSlab) + aSize);
    if (!pMemory)
        return nullptr;
    auto* pSlab = new (pMemory) CSlab(1);
    pSlab->m_bOne = true;
    return pSlab + 1;
}

// The slab from which a thread takes its blocks.
struct COpenSlab {
    CSlab* m_pSlab;  // null: no open slab
    size_t m_nUsed;  // bytes; SLAB_SIZE without an open slab
    int m_nBlocks;
    bool m_bEnded;  // the thread is about to end and opens no other slab
};

// Every allocation reads it, and this model of thread-local storage makes that cheap. It suits only a few bytes.
[[gnu::tls_model("initial-exec")]] constinit thread_local COpenSlab t_Open{nullptr, SLAB_SIZE, 0, false};

// Blocks of one slab that the calling thread's batch of events has given back, and that the slab still counts.
struct CGiven {
    CSlab* m_pSlab;  // null: none
    int m_nBlocks;
};

[[gnu::tls_model("initial-exec")]] constinit thread_local CGiven t_Given{nullptr, 0};

void Close(bool aEnded) {
    const COpenSlab open = std::exchange(t_Open, {nullptr, SLAB_SIZE, 0, aEnded});
    if (open.m_pSlab)
        GiveBack(open.m_pSlab, -open.m_nBlocks);
}

// Closes the slab at the calling thread's end, through a key of the threads' library. A thread-local object with a destructor
// would need memory, and without it the process would end. False: there is no key.
bool CloseAtThreadEnd() {
    static pthread_key_t s_Key;
    static const bool s_bKey = pthread_key_create(&s_Key, [](void*) { Close(true); }) == 0;
    return s_bKey && pthread_setspecific(s_Key, &t_Open) == 0;
}

bool Open() {
    if (t_Open.m_bEnded || !CloseAtThreadEnd())
        return false;
    Close(false);
    void* pMemory = s_Spares.Take();
    if (!pMemory)
        pMemory = NewSlabMemory(SLAB_SIZE);
    if (!pMemory)
        return false;
    t_Open = {new (pMemory) CSlab(0), sizeof(CSlab), 0, false};
    return true;
}

}  // namespace

void* take_event_memory(size_t aSize) noexcept {
    if (!REUSES_MEMORY)
        return ::operator new(aSize, std::nothrow);
    if (aSize > LARGEST)
        return TakeOne(aSize);
    const size_t nSize = (aSize + BLOCK_ALIGNMENT - 1) & ~(BLOCK_ALIGNMENT - 1);
    if (t_Open.m_nUsed + nSize > SLAB_SIZE && !Open())
        return TakeOne(aSize);
    void* pBlock = reinterpret_cast<char*>(t_Open.m_pSlab) + t_Open.m_nUsed;
    t_Open.m_nUsed += nSize;
    ++t_Open.m_nBlocks;
    return pBlock;
}

void give_event_memory(void* aMemory) noexcept {
    if (!REUSES_MEMORY)
        return ::operator delete(aMemory);
    if (!aMemory)
        return;
    auto* pSlab = reinterpret_cast<CSlab*>(reinterpret_cast<uintptr_t>(aMemory) & ~(SLAB_ALIGNMENT - 1));
    if (!CEventBatch::Current())
        return GiveBack(pSlab, 1);
    if (t_Given.m_pSlab != pSlab)
        flush_event_memory();
    t_Given.m_pSlab = pSlab;
    ++t_Given.m_nBlocks;
}

void flush_event_memory() noexcept {
    const CGiven given = std::exchange(t_Given, {nullptr, 0});
    if (given.m_pSlab)
        GiveBack(given.m_pSlab, given.m_nBlocks);
}

}  // namespace talvo
