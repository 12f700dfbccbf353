// Freed memory that is kept for reuse.
#pragma once

#include <array>
#include <cstddef>
#include <mutex>

namespace talvo {

// Off under the address sanitizer: reuse would hide a use after free from it.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool REUSES_MEMORY = false;
#elif defined(__has_feature)
constexpr bool REUSES_MEMORY = !__has_feature(address_sanitizer);
#else
constexpr bool REUSES_MEMORY = true;
#endif

// A stack of at most MOST free pieces of memory of one size. Any thread. The pieces are not freed at process exit, because
// their users may end later.
template <size_t MOST>
class CSpares {
public:
    // Null: the stack is empty.
    void* Take() {
        const std::lock_guard guard(m_Mutex);
        return m_nCount > 0 ? m_Spares[--m_nCount] : nullptr;
    }
    // false: the stack is full, and the memory stays the caller's.
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
