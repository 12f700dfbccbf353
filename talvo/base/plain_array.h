// An array of plain data that grows.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <type_traits>

namespace talvo {

// Unlike a vector it neither initialises its elements nor copies a large array to enlarge it: the system then moves whole
// pages, and unused ones take no memory. In such an array the elements begin at a cache line.
template <class T>
class CPlainArray {
    static_assert(std::is_trivially_copyable_v<T> && alignof(T) <= alignof(std::max_align_t));

public:
    CPlainArray() = default;
    ~CPlainArray() { std::free(m_pMemory); }
    CPlainArray(const CPlainArray&) = delete;
    CPlainArray& operator=(const CPlainArray&) = delete;

    // Makes it larger. False: there is no memory, and nothing changes.
    bool Grow(size_t aCount) {
        void* pMemory = std::realloc(m_pMemory, GAP + aCount * sizeof(T));
        if (!pMemory)
            return false;
        m_pMemory = pMemory;
        m_pFirst = reinterpret_cast<T*>(static_cast<char*>(pMemory) + GAP);
        return true;
    }

    T& operator[](size_t aIndex) { return m_pFirst[aIndex]; }
    const T& operator[](size_t aIndex) const { return m_pFirst[aIndex]; }

private:
    static constexpr size_t GAP = 48;  // a large allocation begins 16 bytes behind a page

    void* m_pMemory = nullptr;
    T* m_pFirst = nullptr;
};

}  // namespace talvo
