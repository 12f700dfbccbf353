#include "talvo/event/event_memory.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>

#include "talvo/base/memory_reuse.h"

namespace talvo {

namespace {

constexpr size_t GRAIN = 64;  // bytes, a cache line: no two events share one
constexpr size_t SIZES = 4;   // so many multiples of it are kept, larger blocks are not
constexpr size_t BATCH = 32;  // blocks that change hands in one go
constexpr size_t MOST_BATCHES = 16;
constexpr size_t AHEAD = 6;  // blocks

using CBatch = std::array<void*, BATCH>;
using CDepot = CSpares<CBatch, MOST_BATCHES>;

constinit std::array<CDepot, SIZES> s_Depots;

// A thread's blocks of one size.
class CShelf {
public:
    CShelf() = default;
    ~CShelf() { Free(m_nBlocks); }
    CShelf(const CShelf&) = delete;
    CShelf& operator=(const CShelf&) = delete;

    void* Take(size_t aIndex) {
        if (m_nBlocks == 0 && !Fetch(s_Depots[aIndex]))
            return ::operator new((aIndex + 1) * GRAIN);
        if (--m_nBlocks >= AHEAD)
            __builtin_prefetch(m_Blocks[m_nBlocks - AHEAD], 1);
        return m_Blocks[m_nBlocks];
    }
    void Give(size_t aIndex, void* aMemory) {
        if (m_nBlocks == m_Blocks.size())
            HandOn(s_Depots[aIndex]);
        m_Blocks[m_nBlocks++] = aMemory;
    }

private:
    bool Fetch(CDepot& aDepot) {
        CBatch batch;
        if (!aDepot.Take(batch))
            return false;
        m_nBlocks = BATCH;
        std::ranges::copy(batch, m_Blocks.begin());
        for (size_t n = BATCH - AHEAD; n < BATCH; ++n)
            __builtin_prefetch(m_Blocks[n], 1);
        return true;
    }
    // The oldest, which this processor has at hand the least.
    void HandOn(CDepot& aDepot) {
        CBatch oldest;
        std::copy_n(m_Blocks.begin(), BATCH, oldest.begin());
        if (!aDepot.Give(oldest))
            Free(BATCH);
        std::copy(m_Blocks.begin() + BATCH, m_Blocks.begin() + static_cast<long>(m_nBlocks), m_Blocks.begin());
        m_nBlocks -= BATCH;
    }
    void Free(size_t aCount) {
        for (size_t n = 0; n < aCount; ++n)
            ::operator delete(m_Blocks[n]);
    }

    size_t m_nBlocks = 0;
    std::array<void*, 2 * BATCH> m_Blocks;
};

using CShelves = std::array<CShelf, SIZES>;

// Every event asks for these, which this model of thread-local storage makes cheap; it is for a few bytes only.
[[gnu::tls_model("initial-exec")]] constinit thread_local CShelves* t_pShelves = nullptr;
[[gnu::tls_model("initial-exec")]] constinit thread_local bool t_bEnded = false;

struct CShelvesEnd {
    ~CShelvesEnd() {
        delete std::exchange(t_pShelves, nullptr);
        t_bEnded = true;
    }
};

// Null: without, for want of memory or because the thread is about to end.
CShelves* GetShelves() {
    if (t_pShelves || t_bEnded)
        return t_pShelves;
    t_pShelves = new (std::nothrow) CShelves;
    static thread_local CShelvesEnd end;
    return t_pShelves;
}

bool IsKept(size_t aSize) { return REUSES_MEMORY && aSize - 1 < SIZES * GRAIN; }

}  // namespace

void* take_event_memory(size_t aSize) {
    CShelves* pShelves = IsKept(aSize) ? GetShelves() : nullptr;
    const size_t nIndex = (aSize - 1) / GRAIN;
    if (pShelves)
        return (*pShelves)[nIndex].Take(nIndex);
    return ::operator new(IsKept(aSize) ? (nIndex + 1) * GRAIN : aSize);  // another thread may keep it
}

void give_event_memory(void* aMemory, size_t aSize) noexcept {
    CShelves* pShelves = IsKept(aSize) && aMemory ? GetShelves() : nullptr;
    const size_t nIndex = (aSize - 1) / GRAIN;
    if (pShelves)
        (*pShelves)[nIndex].Give(nIndex, aMemory);
    else
        ::operator delete(aMemory);
}

}  // namespace talvo
