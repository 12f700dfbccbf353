#include "talvo/event/timer_queue_ordered_list.h"

#include <algorithm>
#include <limits>

#include "talvo/base/with_memory.h"

namespace {

constexpr DWORD EMPTY = 0xFFFFFFFF;
constexpr size_t SMALLEST_TABLE = 16;
constexpr int64_t NEVER = std::numeric_limits<int64_t>::max();

// Fibonacci hashing: the high bits of the product mix all bits of the address, and distribute adjacent addresses evenly.
DWORD HashOf(const ICmTimerHandler* aEh) {
    return static_cast<DWORD>((reinterpret_cast<uintptr_t>(aEh) * 0x9E3779B97F4A7C15u) >> 32);
}

}  // namespace

CCmTimerQueueOrderedList::~CCmTimerQueueOrderedList() { RunPendingDeletions(); }

int CCmTimerQueueOrderedList::PushNode_l(const CNode& aNode) {
    if (!HasRoom())
        return NO_MEMORY;
    const DWORD dwHash = HashOf(aNode.m_pEh);
    CEntry& entry = m_Table[Find(dwHash, aNode.m_pEh)];
    const DWORD dwOrder = NextOrder();
    const bool bNew = entry.m_dwSlot == EMPTY;
    if (bNew)
        entry = {dwHash, Item(m_dwTaken).GetSlot()};
    const DWORD dwSlot = entry.m_dwSlot;
    m_Slots[dwSlot] = {aNode.m_pEh, aNode.m_pArg, aNode.m_llInterval, aNode.m_dwCount};
    const CHeapItem item(aNode.m_llExpires, dwOrder, dwSlot);
    if (bNew) {
        Append(item);
        return 0;
    }
    if (m_HeapIndexes[dwSlot] < m_dwEnd) {
        Settle(m_HeapIndexes[dwSlot], item);
    } else {
        Remove(m_HeapIndexes[dwSlot]);  // this frees the slot for the item that is appended now
        Append(item);
    }
    return 1;
}

// Makes room behind the heap by moving the first of the timers for the next pass.
void CCmTimerQueueOrderedList::Append(CHeapItem aItem) {
    if (m_dwEnd != m_dwTaken)
        Place(m_dwTaken, Item(m_dwEnd));
    ++m_dwTaken;
    SiftUp(m_dwEnd++, aItem);
}

int CCmTimerQueueOrderedList::PushNextPassNode_l(const CNode& aNode) {
    if (!HasRoom())
        return NO_MEMORY;
    const int nFound = EraseNode_l(aNode.m_pEh) == 0 ? 1 : 0;
    const DWORD dwHash = HashOf(aNode.m_pEh);
    const DWORD dwOrder = NextOrder();
    const DWORD dwSlot = Item(m_dwTaken).GetSlot();
    m_Table[Find(dwHash, aNode.m_pEh)] = {dwHash, dwSlot};
    m_Slots[dwSlot] = {aNode.m_pEh, aNode.m_pArg, aNode.m_llInterval, aNode.m_dwCount};
    m_llNextPassNow = aNode.m_llExpires;
    Place(m_dwTaken++, {NEVER, dwOrder, dwSlot});
    return nFound;
}

void CCmTimerQueueOrderedList::AdmitNextPassNodes_l(int64_t aNow) {
    while (m_dwEnd != m_dwTaken) {
        CHeapItem item = Item(m_dwEnd);
        item.m_llExpires = aNow;
        SiftUp(m_dwEnd++, item);
    }
}

int CCmTimerQueueOrderedList::RePushNode_l(const CNode& aNode) { return PushNode_l(aNode); }

int CCmTimerQueueOrderedList::EraseNode_l(ICmTimerHandler* aEh) {
    if (m_dwTaken == ROOT)
        return 1;
    const DWORD dwPosition = Find(HashOf(aEh), aEh);
    const DWORD dwSlot = m_Table[dwPosition].m_dwSlot;
    if (dwSlot == EMPTY)
        return 1;
    RemoveFromTable(dwPosition);
    Remove(m_HeapIndexes[dwSlot]);
    return 0;
}

int CCmTimerQueueOrderedList::PopFirstNode_l(CNode& aNode) {
    if (m_dwEnd == ROOT)
        return -1;
    LoadFirst(aNode);
    RemoveFirst();
    return 0;
}

BOOL CCmTimerQueueOrderedList::PopDueNode_l(int64_t aNow, CNode& aNode) {
    if (m_dwEnd == ROOT || Item(ROOT).m_llExpires > aNow)
        return FALSE;
    LoadFirst(aNode);
    if (Advance(aNode, aNow)) {
        const DWORD dwSlot = Item(ROOT).GetSlot();
        m_Slots[dwSlot].m_dwCount = aNode.m_dwCount;
        SiftDown(ROOT, {aNode.m_llExpires, NextOrder(), dwSlot});
    } else {
        RemoveFirst();
    }
    __builtin_prefetch(&m_Slots[Item(ROOT).GetSlot()]);
    return TRUE;
}

int CCmTimerQueueOrderedList::GetEarliestTime_l(int64_t& aExpires) const {
    if (m_dwTaken == ROOT)
        return -1;
    aExpires = m_dwEnd == m_dwTaken ? m_Heap[0].m_Items[ROOT].m_llExpires : m_llNextPassNow;
    return 0;
}

// The data of a firing is scattered. So the handler is prefetched while the heap is reordered, and the next timer's slot during
// the callback.
void CCmTimerQueueOrderedList::LoadFirst(CNode& aNode) {
    const CHeapItem& item = Item(ROOT);
    const CSlot& slot = m_Slots[item.GetSlot()];
    aNode = {slot.m_pEh, slot.m_pArg, slot.m_llInterval, item.m_llExpires, slot.m_dwCount};
    __builtin_prefetch(slot.m_pEh);
}

// Without branches, because no processor could predict them.
bool CCmTimerQueueOrderedList::FiresBefore(const CHeapItem& a, const CHeapItem& b) {
    return (a.m_llExpires < b.m_llExpires) | ((a.m_llExpires == b.m_llExpires) & (a.m_ullOrderAndSlot < b.m_ullOrderAndSlot));
}

DWORD CCmTimerQueueOrderedList::FirstOfFamily(DWORD aFamily) const {
    const CHeapItem* pItems = m_Heap[aFamily].m_Items;
    const DWORD dwLeft = FiresBefore(pItems[1], pItems[0]);
    const DWORD dwRight = 2 + DWORD{FiresBefore(pItems[3], pItems[2])};
    return aFamily * ARITY + (FiresBefore(pItems[dwRight], pItems[dwLeft]) ? dwRight : dwLeft);
}

void CCmTimerQueueOrderedList::Place(DWORD aIndex, CHeapItem aItem) {
    Item(aIndex) = aItem;
    m_HeapIndexes[aItem.GetSlot()] = aIndex;
}

// Both sifts move the hole at aIndex to the place of aItem.
void CCmTimerQueueOrderedList::SiftUp(DWORD aIndex, CHeapItem aItem) {
    while (aIndex > ROOT) {
        const DWORD dwParent = aIndex / ARITY + 2;
        if (!FiresBefore(aItem, Item(dwParent)))
            break;
        Place(aIndex, Item(dwParent));
        aIndex = dwParent;
    }
    Place(aIndex, aItem);
}

void CCmTimerQueueOrderedList::SiftDown(DWORD aIndex, CHeapItem aItem) {
    for (;;) {
        const DWORD dwFamily = aIndex - 2;  // of the children
        if (dwFamily * ARITY >= m_dwEnd)
            break;
        const DWORD dwBest = FirstOfFamily(dwFamily);
        if (!FiresBefore(Item(dwBest), aItem))
            break;
        Place(aIndex, Item(dwBest));
        aIndex = dwBest;
    }
    Place(aIndex, aItem);
}

void CCmTimerQueueOrderedList::Settle(DWORD aIndex, CHeapItem aItem) {
    if (aIndex > ROOT && FiresBefore(aItem, Item(aIndex / ARITY + 2)))
        SiftUp(aIndex, aItem);
    else
        SiftDown(aIndex, aItem);
}

DWORD CCmTimerQueueOrderedList::NextOrder() {
    if (m_dwNextOrder == 0)
        Renumber();
    return --m_dwNextOrder;
}

// Restarts the order numbers above those of the pending timers, whose order does not change. A sorted array is a heap.
void CCmTimerQueueOrderedList::Renumber() {
    std::sort(&Item(ROOT), &Item(ROOT) + (m_dwTaken - ROOT),
              FiresBefore);  // those for the next pass stay behind, because they expire at NEVER
    m_dwNextOrder = EMPTY;
    for (DWORD dwIndex = m_dwTaken; dwIndex-- > ROOT;)
        Place(dwIndex, {Item(dwIndex).m_llExpires, --m_dwNextOrder, Item(dwIndex).GetSlot()});
}

// The heap's last item fills the gap.
void CCmTimerQueueOrderedList::Remove(DWORD aIndex) {
    const DWORD dwSlot = Item(aIndex).GetSlot();
    if (aIndex >= m_dwEnd)
        return FreePlace(aIndex, dwSlot);
    const CHeapItem last = Item(--m_dwEnd);
    FreePlace(m_dwEnd, dwSlot);
    if (aIndex < m_dwEnd)
        Settle(aIndex, last);
}

// The very last item moves to aIndex, and its own place gets the free slot.
void CCmTimerQueueOrderedList::FreePlace(DWORD aIndex, DWORD aSlot) {
    if (aIndex != --m_dwTaken)
        Place(aIndex, Item(m_dwTaken));
    Item(m_dwTaken) = {NEVER, 0, aSlot};
}

void CCmTimerQueueOrderedList::RemoveFirst() {
    const DWORD dwMask = static_cast<DWORD>(m_Table.size() - 1);
    const DWORD dwSlot = Item(ROOT).GetSlot();
    DWORD dwPosition = Home(HashOf(m_Slots[dwSlot].m_pEh));
    __builtin_prefetch(&m_Table[dwPosition]);
    const CHeapItem last = Item(--m_dwEnd);
    FreePlace(m_dwEnd, dwSlot);
    if (m_dwEnd != ROOT)
        SiftDown(ROOT, last);
    while (m_Table[dwPosition].m_dwSlot != dwSlot)
        dwPosition = (dwPosition + 1) & dwMask;
    RemoveFromTable(dwPosition);
}

// The position of the handler in the table, or the empty position where it would go.
[[gnu::always_inline]] inline DWORD CCmTimerQueueOrderedList::Find(DWORD aHash, const ICmTimerHandler* aEh) const {
    const DWORD dwMask = static_cast<DWORD>(m_Table.size() - 1);
    for (DWORD dwPosition = Home(aHash);; dwPosition = (dwPosition + 1) & dwMask) {
        const CEntry& entry = m_Table[dwPosition];
        if (entry.m_dwSlot == EMPTY || (entry.m_dwHash == aHash && m_Slots[entry.m_dwSlot].m_pEh == aEh))
            return dwPosition;
    }
}

// Closes the gap with later entries of the same run that may move up, so that a probe never meets a hole.
void CCmTimerQueueOrderedList::RemoveFromTable(DWORD aPosition) {
    const DWORD dwMask = static_cast<DWORD>(m_Table.size() - 1);
    DWORD dwGap = aPosition;
    for (DWORD dwNext = (dwGap + 1) & dwMask; m_Table[dwNext].m_dwSlot != EMPTY; dwNext = (dwNext + 1) & dwMask) {
        if (((dwNext - Home(m_Table[dwNext].m_dwHash)) & dwMask) < ((dwNext - dwGap) & dwMask))
            continue;
        m_Table[dwGap] = m_Table[dwNext];
        dwGap = dwNext;
    }
    m_Table[dwGap].m_dwSlot = EMPTY;
}

BOOL CCmTimerQueueOrderedList::HasRoom() {
    return (m_dwTaken - ROOT) * size_t{2} < m_Table.size() || talvo::WithMemory([this] { Grow(); });
}

// If memory runs out half-way, the parts that have grown are larger than necessary, without harm: m_Table alone sets the
// capacity.
void CCmTimerQueueOrderedList::Grow() {
    const size_t nTable = std::max(m_Table.size() * 2, SMALLEST_TABLE);
    const DWORD dwTimers = m_dwTaken - ROOT;
    const DWORD dwCapacity = static_cast<DWORD>(nTable / 2);
    std::vector<CEntry> table(nTable, {0, EMPTY});
    m_Slots.resize(dwCapacity);
    m_HeapIndexes.resize(dwCapacity);
    m_Heap.resize((ROOT + dwCapacity + ARITY - 1) / ARITY);
    m_Table.swap(table);
    for (DWORD dwIndex = m_dwTaken; dwIndex < m_Heap.size() * ARITY; ++dwIndex)
        Item(dwIndex) = {NEVER, 0, dwIndex - ROOT};
    for (DWORD dwSlot = 0; dwSlot < dwTimers; ++dwSlot) {
        const DWORD dwHash = HashOf(m_Slots[dwSlot].m_pEh);
        m_Table[Find(dwHash, m_Slots[dwSlot].m_pEh)] = {dwHash, dwSlot};
    }
}
