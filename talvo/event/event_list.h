// A list of events, for queues and batches.
#pragma once

#include <cstddef>
#include <utility>

#include "talvo/event/event_queue.h"

namespace talvo {

// A first-in-first-out list that links the events themselves: it needs no memory, so a post cannot fail for lack of it. The
// last event points to itself; an event in no list points to null. Does not own the events.
class CEventList {
public:
    CEventList() = default;
    CEventList(CEventList&& aOther) noexcept { Swap(aOther); }
    CEventList& operator=(CEventList&& aOther) noexcept {
        Swap(aOther);
        return *this;
    }

    // TRUE: the event is in a list.
    static bool IsListed(const ICmEvent& aEvent) { return aEvent.m_pNext != nullptr; }

    bool empty() const { return m_nCount == 0; }
    size_t size() const { return m_nCount; }

    // aEvent must be in no list.
    void Append(ICmEvent* aEvent) {
        aEvent->m_pNext = aEvent;
        Link(aEvent, aEvent, 1);
    }

    // Null: the list is empty.
    ICmEvent* TakeFirst() {
        if (empty())
            return nullptr;
        --m_nCount;
        ICmEvent* pEvent = m_pFirst;
        m_pFirst = std::exchange(pEvent->m_pNext, nullptr);
        return pEvent;
    }

    // Moves the aCount oldest events of aFrom, or all if it has fewer, to the end of this list.
    void TakeFrom(CEventList& aFrom, size_t aCount) {
        if (aCount == 0 || aFrom.empty())
            return;
        if (aCount >= aFrom.size()) {
            Link(aFrom.m_pFirst, aFrom.m_pLast, std::exchange(aFrom.m_nCount, 0));
            return;
        }
        ICmEvent* pLast = aFrom.m_pFirst;
        for (size_t n = 1; n < aCount; ++n)
            pLast = pLast->m_pNext;
        ICmEvent* pFirst = std::exchange(aFrom.m_pFirst, std::exchange(pLast->m_pNext, pLast));
        aFrom.m_nCount -= aCount;
        Link(pFirst, pLast, aCount);
    }

    // Prefetches the next event while others run: another thread wrote it, so this processor's cache does not have it.
    void Prefetch() const {
        if (!empty())
            __builtin_prefetch(m_pFirst, 1);
    }

private:
    void Link(ICmEvent* aFirst, ICmEvent* aLast, size_t aCount) {
        (empty() ? m_pFirst : m_pLast->m_pNext) = aFirst;
        m_pLast = aLast;
        m_nCount += aCount;
    }

    void Swap(CEventList& aOther) {
        std::swap(m_pFirst, aOther.m_pFirst);
        std::swap(m_pLast, aOther.m_pLast);
        std::swap(m_nCount, aOther.m_nCount);
    }

    ICmEvent* m_pFirst = nullptr;  // both pointers are stale while the list is empty
    ICmEvent* m_pLast = nullptr;
    size_t m_nCount = 0;
};

}  // namespace talvo
