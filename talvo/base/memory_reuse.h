// Memory that is given back and kept to be used again.
#pragma once

#include <array>
#include <cstddef>
#include <mutex>

namespace talvo {

// Not under a sanitizer that looks for its use too late, which reuse would hide.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool REUSES_MEMORY = false;
#elif defined(__has_feature)
constexpr bool REUSES_MEMORY = !__has_feature(address_sanitizer);
#else
constexpr bool REUSES_MEMORY = true;
#endif

// At most MOST pieces of memory of one size that no thread has, the last first. Any thread. What it holds at the process's end
// stays: its owners may end late.
template <size_t MOST>
class CSpares {
public:
    // Null: there is none.
    void* Take() {
        const std::lock_guard guard(m_Mutex);
        return m_nCount > 0 ? m_Spares[--m_nCount] : nullptr;
    }
    // False: there is no room, and the memory stays the caller's.
    bool Give(void* aMemory) {
        const std::lock_guard guard(m_Mutex);
        if (m_nCount == MOST)
            return false;
        m_Spares[m_nCount++] = aMemory;
        return true;
    }

private:
    std::mutex m_Mutex;
    size_t m_nCount = 0;
    std::array<void*, MOST> m_Spares{};
};

}  // namespace talvo
