#include "talvo/event/timer_queue_ordered_list.h"

#include <algorithm>

namespace {

constexpr DWORD ARITY = 4;
constexpr DWORD EMPTY = 0xFFFFFFFF;
constexpr size_t SMALLEST_TABLE = 16;

}  // namespace

CCmTimerQueueOrderedList::~CCmTimerQueueOrderedList() { RunPendingDeletions(); }

int CCmTimerQueueOrderedList::PushNode_l(const CNode& aNode) {
    if ((m_Heap.size() + 1) * 2 > m_Table.size())
        Grow();
    const DWORD dwPosition = Find(aNode.m_pEh);
    const CHeapItem item{aNode.m_llExpires, ++m_ullPushes, m_Table[dwPosition]};
    if (item.m_dwSlot != EMPTY) {
        CSlot& slot = m_Slots[item.m_dwSlot];
        slot.m_Node = aNode;
        Settle(slot.m_dwHeapIndex, item);
        return 1;
    }
    DWORD dwSlot = static_cast<DWORD>(m_Slots.size());
    if (m_FreeSlots.empty()) {
        m_Slots.push_back({aNode, 0});
    } else {
        dwSlot = m_FreeSlots.back();
        m_FreeSlots.pop_back();
        m_Slots[dwSlot].m_Node = aNode;
    }
    m_Table[dwPosition] = dwSlot;
    m_Heap.emplace_back();
    SiftUp(static_cast<DWORD>(m_Heap.size() - 1), {item.m_llExpires, item.m_ullPushed, dwSlot});
    return 0;
}

int CCmTimerQueueOrderedList::RePushNode_l(const CNode& aNode) { return PushNode_l(aNode); }

int CCmTimerQueueOrderedList::EraseNode_l(ICmTimerHandler* aEh) {
    if (m_Heap.empty())
        return 1;
    const DWORD dwPosition = Find(aEh);
    if (m_Table[dwPosition] == EMPTY)
        return 1;
    RemoveSlot(dwPosition);
    return 0;
}

int CCmTimerQueueOrderedList::PopFirstNode_l(CNode& aNode) {
    if (m_Heap.empty())
        return -1;
    aNode = m_Slots[m_Heap[0].m_dwSlot].m_Node;
    RemoveSlot(Find(aNode.m_pEh));
    return 0;
}

int CCmTimerQueueOrderedList::GetEarliestTime_l(int64_t& aExpires) const {
    if (m_Heap.empty())
        return -1;
    aExpires = m_Heap[0].m_llExpires;
    return 0;
}

bool CCmTimerQueueOrderedList::FiresBefore(const CHeapItem& a, const CHeapItem& b) {
    return a.m_llExpires != b.m_llExpires ? a.m_llExpires < b.m_llExpires : a.m_ullPushed > b.m_ullPushed;
}

void CCmTimerQueueOrderedList::Place(DWORD aIndex, const CHeapItem& aItem) {
    m_Heap[aIndex] = aItem;
    m_Slots[aItem.m_dwSlot].m_dwHeapIndex = aIndex;
}

// Both sifts move the hole at aIndex to where aItem belongs.
void CCmTimerQueueOrderedList::SiftUp(DWORD aIndex, const CHeapItem& aItem) {
    while (aIndex > 0) {
        const DWORD dwParent = (aIndex - 1) / ARITY;
        if (!FiresBefore(aItem, m_Heap[dwParent]))
            break;
        Place(aIndex, m_Heap[dwParent]);
        aIndex = dwParent;
    }
    Place(aIndex, aItem);
}

void CCmTimerQueueOrderedList::SiftDown(DWORD aIndex, const CHeapItem& aItem) {
    const DWORD dwSize = static_cast<DWORD>(m_Heap.size());
    for (;;) {
        const DWORD dwFirst = aIndex * ARITY + 1;
        if (dwFirst >= dwSize)
            break;
        DWORD dwBest = dwFirst;
        for (DWORD dwChild = dwFirst + 1; dwChild < std::min(dwFirst + ARITY, dwSize); ++dwChild) {
            if (FiresBefore(m_Heap[dwChild], m_Heap[dwBest]))
                dwBest = dwChild;
        }
        if (!FiresBefore(m_Heap[dwBest], aItem))
            break;
        Place(aIndex, m_Heap[dwBest]);
        aIndex = dwBest;
    }
    Place(aIndex, aItem);
}

void CCmTimerQueueOrderedList::Settle(DWORD aIndex, const CHeapItem& aItem) {
    if (aIndex > 0 && FiresBefore(aItem, m_Heap[(aIndex - 1) / ARITY]))
        SiftUp(aIndex, aItem);
    else
        SiftDown(aIndex, aItem);
}

void CCmTimerQueueOrderedList::RemoveFromHeap(DWORD aIndex) {
    const CHeapItem last = m_Heap.back();
    m_Heap.pop_back();
    if (aIndex < m_Heap.size())
        Settle(aIndex, last);
}

// Fibonacci hashing: the high bits of the product mix all bits of the address.
DWORD CCmTimerQueueOrderedList::Home(const ICmTimerHandler* aEh) const {
    const uint64_t ullHash = reinterpret_cast<uintptr_t>(aEh) * 0x9E3779B97F4A7C15u;
    return static_cast<DWORD>(ullHash >> 32) & static_cast<DWORD>(m_Table.size() - 1);
}

// The handler's position in the table, or the empty one where it would go.
DWORD CCmTimerQueueOrderedList::Find(const ICmTimerHandler* aEh) const {
    const DWORD dwMask = static_cast<DWORD>(m_Table.size() - 1);
    DWORD dwPosition = Home(aEh);
    while (m_Table[dwPosition] != EMPTY && m_Slots[m_Table[dwPosition]].m_Node.m_pEh != aEh)
        dwPosition = (dwPosition + 1) & dwMask;
    return dwPosition;
}

void CCmTimerQueueOrderedList::Grow() {
    m_Table.assign(std::max(m_Table.size() * 2, SMALLEST_TABLE), EMPTY);
    for (const CHeapItem& item : m_Heap)
        m_Table[Find(m_Slots[item.m_dwSlot].m_Node.m_pEh)] = item.m_dwSlot;
}

// Closes the gap: whatever stands behind it in the same run and may move up does, so that probing never meets a hole.
void CCmTimerQueueOrderedList::RemoveFromTable(DWORD aPosition) {
    const DWORD dwMask = static_cast<DWORD>(m_Table.size() - 1);
    DWORD dwGap = aPosition;
    for (DWORD dwNext = (dwGap + 1) & dwMask; m_Table[dwNext] != EMPTY; dwNext = (dwNext + 1) & dwMask) {
        const DWORD dwHome = Home(m_Slots[m_Table[dwNext]].m_Node.m_pEh);
        if (((dwNext - dwHome) & dwMask) < ((dwNext - dwGap) & dwMask))
            continue;
        m_Table[dwGap] = m_Table[dwNext];
        dwGap = dwNext;
    }
    m_Table[dwGap] = EMPTY;
}

void CCmTimerQueueOrderedList::RemoveSlot(DWORD aPosition) {
    const DWORD dwSlot = m_Table[aPosition];
    RemoveFromTable(aPosition);
    RemoveFromHeap(m_Slots[dwSlot].m_dwHeapIndex);
    m_FreeSlots.push_back(dwSlot);
}
