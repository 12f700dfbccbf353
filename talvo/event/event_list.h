// The events that wait in a queue or are run in one go.
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

class ICmEvent;

namespace talvo {

// First in, first out: a row of pointers, taken off at the front by moving the front. What it has grown to it keeps, up to a
// bound, so that a queue in use allocates nothing. Does not own the events.
class CEventList {
public:
    CEventList() = default;
    CEventList(CEventList&& aOther) noexcept { Swap(aOther); }
    CEventList& operator=(CEventList&& aOther) noexcept {
        Swap(aOther);
        return *this;
    }

    bool empty() const { return m_nFront == m_Row.size(); }
    size_t size() const { return m_Row.size() - m_nFront; }
    ICmEvent* const* begin() const { return m_Row.data() + m_nFront; }
    ICmEvent* const* end() const { return m_Row.data() + m_Row.size(); }

    void Append(ICmEvent* aEvent) { m_Row.push_back(aEvent); }

    // Moves the aCount oldest events of aFrom, or all if it has fewer, behind this list's.
    void TakeFrom(CEventList& aFrom, size_t aCount) {
        if (empty() && aCount >= aFrom.size() && aFrom.size() > FEW) {  // with few, each list had better keep its memory
            Swap(aFrom);
            return;
        }
        const size_t nTaken = std::min(aCount, aFrom.size());
        m_Row.reserve(m_Row.size() + nTaken);
        for (size_t n = 0; n < nTaken; ++n)
            m_Row.push_back(aFrom.begin()[n]);
        aFrom.DropFront(nTaken);
    }

    // Has the memory of the next few events on its way while others run: another thread wrote it, so that each would have to
    // be waited for.
    void Prefetch() const {
        const size_t nCount = std::min(size(), AHEAD);
        for (size_t n = 0; n < nCount; ++n)
            __builtin_prefetch(begin()[n], 1);
    }

private:
    static constexpr size_t AHEAD = 8;
    static constexpr size_t FEW = 16;
    static constexpr size_t MOST_KEPT = 4096;  // pointers

    void Swap(CEventList& aOther) {
        m_Row.swap(aOther.m_Row);
        std::swap(m_nFront, aOther.m_nFront);
    }

    void DropFront(size_t aCount) {
        m_nFront += aCount;
        if (!empty())
            return;
        m_nFront = 0;
        if (m_Row.capacity() > MOST_KEPT)
            std::vector<ICmEvent*>().swap(m_Row);  // an empty list assigned would keep it
        else
            m_Row.clear();
    }

    std::vector<ICmEvent*> m_Row;
    size_t m_nFront = 0;
};

}  // namespace talvo
