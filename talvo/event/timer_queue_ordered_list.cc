#include "talvo/event/timer_queue_ordered_list.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <utility>

#include "talvo/base/with_memory.h"
#include "talvo/event/timer_schedule.h"

namespace {

constexpr DWORD NO_SLOT = 0xFFFFFFFF;
constexpr DWORD SMALLEST = 8;
constexpr int64_t NEVER = std::numeric_limits<int64_t>::max();

// Never 0, which is the note of a handler without a queue.
DWORD NextNumber() {
    static std::atomic<DWORD> s_dwLast{0};
    DWORD dwNumber = 0;
    while (dwNumber == 0)
        dwNumber = s_dwLast.fetch_add(1, std::memory_order_relaxed) + 1;
    return dwNumber;
}

uint64_t NoteOf(DWORD aNumber, DWORD aSlot) { return uint64_t{aNumber} << 32 | aSlot; }

}  // namespace

CCmTimerQueueOrderedList::CCmTimerQueueOrderedList(ICmObserver* aObserver)
    : CCmTimerQueueBase(aObserver), m_dwNumber(NextNumber()) {}

CCmTimerQueueOrderedList::~CCmTimerQueueOrderedList() { RunPendingDeletions(); }

// The steps of the operations are inlined: their calls took a quarter of the instructions.
[[gnu::flatten]] CmResult CCmTimerQueueOrderedList::ScheduleTimer(ICmTimerHandler* aEh, void* aArg,
                                                                  const CCmTimeValue& aInterval, unsigned long aCount) {
    return Schedule_i(aEh, aArg, aInterval, aCount, [this](const CNode& aNode) { return Push_i(aNode); });
}

int CCmTimerQueueOrderedList::PushNode_l(const CNode& aNode) { return Push_i(aNode); }

int CCmTimerQueueOrderedList::Push_i(const CNode& aNode) {
    const uint64_t ullNote = aNode.m_pEh->m_ullSlot.load(std::memory_order_relaxed);
    const bool bOurs = IsOurs(ullNote);
    DWORD dwFound = static_cast<DWORD>(ullNote);
    if (!bOurs)
        dwFound = m_Others.empty() ? NO_SLOT : FindOther(aNode.m_pEh);
    if (dwFound != NO_SLOT) {
        Reschedule(dwFound, aNode);
        return 1;
    }
    const DWORD dwSlot = Enter(aNode.m_pEh, bOurs);
    if (dwSlot == NO_SLOT)
        return NO_MEMORY;
    const CHeapItem item(aNode.m_llExpires, NextOrder(), dwSlot);
    Fill(item, aNode);
    Append(item);
    return 0;
}

[[gnu::noinline, gnu::flatten]] void CCmTimerQueueOrderedList::Reschedule(DWORD aSlot, const CNode& aNode) {
    const CHeapItem item(aNode.m_llExpires, NextOrder(), aSlot);
    const CSlot& slot = m_Slots[aSlot];
    const bool bLater = (slot.m_dwCount == 1) & (aNode.m_dwCount == 1) & (aNode.m_llExpires > slot.m_llTime);
    Fill(item, aNode);
    if (m_dwEnd != m_dwTaken && m_HeapIndexes[aSlot] >= m_dwEnd) {
        Remove(m_HeapIndexes[aSlot]);  // this frees the slot for the item that is appended now
        Append(item);
    } else if (!bLater) {
        Settle(m_HeapIndexes[aSlot], item);
    }
}

void CCmTimerQueueOrderedList::Fill(const CHeapItem& aItem, const CNode& aNode) {
    const int64_t llTime = aNode.m_dwCount == 1 ? aNode.m_llExpires : aNode.m_llInterval;
    m_Slots[aItem.GetSlot()] = {aNode.m_pEh, llTime, aNode.m_pArg, aNode.m_dwCount, aItem.GetOrder()};
}

// Makes room behind the heap by moving the first of the timers for the next pass.
void CCmTimerQueueOrderedList::Append(CHeapItem aItem) {
    if (m_dwEnd != m_dwTaken)
        Place(m_dwTaken, Item(m_dwEnd));
    ++m_dwTaken;
    SiftUp(m_dwEnd++, aItem);
}

int CCmTimerQueueOrderedList::PushNextPassNode_l(const CNode& aNode) {
    DWORD dwSlot = Find(aNode.m_pEh);
    const bool bNew = dwSlot == NO_SLOT;
    if (bNew && (dwSlot = Enter(aNode.m_pEh, IsOurs(aNode.m_pEh->m_ullSlot.load(std::memory_order_relaxed)))) == NO_SLOT)
        return NO_MEMORY;
    if (!bNew)
        Remove(m_HeapIndexes[dwSlot]);  // this frees the slot for the item that is placed now
    const CHeapItem item(NEVER, NextOrder(), dwSlot);
    Fill(item, aNode);
    m_llNextPassNow = aNode.m_llExpires;
    Place(m_dwTaken++, item);
    return bNew ? 0 : 1;
}

void CCmTimerQueueOrderedList::AdmitNextPassNodes_l(int64_t aNow) {
    while (m_dwEnd != m_dwTaken) {
        CHeapItem item = Item(m_dwEnd);
        item.m_llExpires = aNow;
        if (CSlot& slot = m_Slots[item.GetSlot()]; slot.m_dwCount == 1)
            slot.m_llTime = aNow;
        SiftUp(m_dwEnd++, item);
    }
}

// The handlers may be gone already, so their notes stay. They have the old number, which no queue uses any more.
void CCmTimerQueueOrderedList::DropNodes_l() {
    m_dwNumber = NextNumber();
    m_Others.clear();
    for (DWORD dwIndex = ROOT; dwIndex < m_dwTaken; ++dwIndex)
        Item(dwIndex) = {NEVER, 0, Item(dwIndex).GetSlot()};
    m_dwEnd = m_dwTaken = ROOT;
}

int CCmTimerQueueOrderedList::RePushNode_l(const CNode& aNode) { return PushNode_l(aNode); }

[[gnu::flatten]] int CCmTimerQueueOrderedList::EraseNode_l(ICmTimerHandler* aEh) {
    const DWORD dwSlot = Find(aEh);
    if (dwSlot == NO_SLOT)
        return 1;
    Forget(aEh);
    Remove(m_HeapIndexes[dwSlot]);
    return 0;
}

int CCmTimerQueueOrderedList::PopFirstNode_l(CNode& aNode) {
    if (m_dwEnd == ROOT)
        return -1;
    SinkFirst();
    LoadFirst(aNode);
    Forget(aNode.m_pEh);
    Remove(ROOT);
    return 0;
}

BOOL CCmTimerQueueOrderedList::PopDueNode_l(int64_t aNow, CNode& aNode) {
    if (m_dwEnd == ROOT)
        return FALSE;
    SinkFirst();
    if (Item(ROOT).m_llExpires > aNow)
        return FALSE;
    LoadFirst(aNode);
    if (Advance(aNode, aNow)) {
        const CHeapItem item(aNode.m_llExpires, NextOrder(), Item(ROOT).GetSlot());
        Fill(item, aNode);
        SiftDown(ROOT, item);
    } else {
        Remove(ROOT);
        Forget(aNode.m_pEh);
    }
    __builtin_prefetch(&m_Slots[Item(ROOT).GetSlot()]);
    return TRUE;
}

int CCmTimerQueueOrderedList::GetEarliestTime_l(int64_t& aExpires) {
    if (m_dwTaken == ROOT)
        return -1;
    aExpires = m_llNextPassNow;
    if (m_dwEnd != m_dwTaken)
        return 0;
    SinkFirst();
    aExpires = Item(ROOT).m_llExpires;
    return 0;
}

// TRUE: the timer was scheduled again, for later than aItem.
BOOL CCmTimerQueueOrderedList::IsLate(const CHeapItem& aItem) const {
    const CSlot& slot = m_Slots[aItem.GetSlot()];
    return slot.m_dwCount == 1 && slot.m_llTime != aItem.m_llExpires;
}

// From now on the first item has its right time.
void CCmTimerQueueOrderedList::SinkFirst() {
    while (IsLate(Item(ROOT))) {
        const DWORD dwSlot = Item(ROOT).GetSlot();
        SiftDown(ROOT, {m_Slots[dwSlot].m_llTime, m_Slots[dwSlot].m_dwOrder, dwSlot});
    }
}

// The data of a firing is scattered. So the handler is prefetched while the heap is reordered, and the next timer's slot during
// the callback.
void CCmTimerQueueOrderedList::LoadFirst(CNode& aNode) {
    const CHeapItem& item = Item(ROOT);
    const CSlot& slot = m_Slots[item.GetSlot()];
    aNode = {slot.m_pEh, slot.m_pArg, slot.m_dwCount == 1 ? 0 : slot.m_llTime, item.m_llExpires, slot.m_dwCount};
    __builtin_prefetch(slot.m_pEh, 1);
}

// Without branches, because no processor could predict them.
bool CCmTimerQueueOrderedList::FiresBefore(const CHeapItem& a, const CHeapItem& b) {
    return (a.m_llExpires < b.m_llExpires) | ((a.m_llExpires == b.m_llExpires) & (a.m_ullOrderAndSlot < b.m_ullOrderAndSlot));
}

DWORD CCmTimerQueueOrderedList::FirstOfFamily(DWORD aFamily) const {
    const CHeapItem* pItems = &m_Heap[aFamily * ARITY];
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

// The families of all grandchildren are prefetched, because the way down depends on comparisons that no processor predicts.
void CCmTimerQueueOrderedList::SiftDown(DWORD aIndex, CHeapItem aItem) {
    for (;;) {
        const DWORD dwFamily = aIndex - 2;  // of the children
        if (dwFamily * ARITY >= m_dwEnd)
            break;
        if (const DWORD dwNext = (dwFamily * ARITY - 2) * ARITY; dwNext < m_dwEnd) {
            for (DWORD i = 0; i < ARITY; ++i)
                __builtin_prefetch(&m_Heap[dwNext + i * ARITY], 1);
        }
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
[[gnu::noinline]] void CCmTimerQueueOrderedList::Renumber() {
    for (DWORD dwIndex = ROOT; dwIndex < m_dwEnd; ++dwIndex) {
        const DWORD dwSlot = Item(dwIndex).GetSlot();
        if (IsLate(Item(dwIndex)))
            Item(dwIndex) = {m_Slots[dwSlot].m_llTime, m_Slots[dwSlot].m_dwOrder, dwSlot};
    }
    std::sort(&Item(ROOT), &Item(ROOT) + (m_dwTaken - ROOT),
              FiresBefore);  // those for the next pass stay behind, because they expire at NEVER
    m_dwNextOrder = 0xFFFFFFFF;
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

// NO_SLOT: the handler has no timer here.
DWORD CCmTimerQueueOrderedList::Find(const ICmTimerHandler* aEh) const {
    const uint64_t ullNote = aEh->m_ullSlot.load(std::memory_order_relaxed);
    if (IsOurs(ullNote))
        return static_cast<DWORD>(ullNote);
    return m_Others.empty() ? NO_SLOT : FindOther(aEh);
}

// Out of line, as are the other rare cases of a schedule.
[[gnu::noinline]] DWORD CCmTimerQueueOrderedList::FindOther(const ICmTimerHandler* aEh) const {
    const auto itOther = m_Others.find(aEh);
    return itOther == m_Others.end() ? NO_SLOT : itOther->second;
}

// The slot of the timer to be added, noted for its handler. aIsOurs: of the present note. NO_SLOT: there is no memory.
DWORD CCmTimerQueueOrderedList::Enter(ICmTimerHandler* aEh, bool aIsOurs) {
    if (m_dwTaken >= m_dwReady && !MakeRoom())
        return NO_SLOT;
    const DWORD dwSlot = Item(m_dwTaken).GetSlot();
    if (const DWORD dwNext = m_dwTaken + 2; dwNext < m_dwReady)  // of the timer after the next
        __builtin_prefetch(&m_Slots[Item(dwNext).GetSlot()], 1);
    if (!aIsOurs)
        return NoteFirstSlot(aEh, dwSlot) ? dwSlot : NO_SLOT;
    aEh->m_ullSlot.store(NoteOf(m_dwNumber, dwSlot), std::memory_order_relaxed);
    return dwSlot;
}

// A handler stays with the first queue that takes it. Queues of several threads may try to be the first.
[[gnu::noinline]] BOOL CCmTimerQueueOrderedList::NoteFirstSlot(ICmTimerHandler* aEh, DWORD aSlot) {
    uint64_t ullNone = 0;
    if (aEh->m_ullSlot.compare_exchange_strong(ullNone, NoteOf(m_dwNumber, aSlot), std::memory_order_relaxed))
        return TRUE;
    return talvo::WithMemory([&] { m_Others[aEh] = aSlot; });
}

void CCmTimerQueueOrderedList::Forget(ICmTimerHandler* aEh) {
    if (IsOurs(aEh->m_ullSlot.load(std::memory_order_relaxed)))
        aEh->m_ullSlot.store(NoteOf(m_dwNumber, NO_SLOT), std::memory_order_relaxed);
    else
        m_Others.erase(aEh);
}

// Places become ready by families, because a family is compared as a whole.
[[gnu::noinline]] BOOL CCmTimerQueueOrderedList::MakeRoom() {
    if (m_dwReady >= m_dwPlaces && !Grow())
        return FALSE;
    do {
        Item(m_dwReady) = {NEVER, 0, m_dwReady - ROOT};
    } while (++m_dwReady % ARITY != 0);
    return TRUE;
}

BOOL CCmTimerQueueOrderedList::Grow() {
    const DWORD dwPlaces = std::max(m_dwPlaces * 2, SMALLEST);
    if (!m_Slots.Grow(dwPlaces) || !m_HeapIndexes.Grow(dwPlaces) || !m_Heap.Grow(dwPlaces))
        return FALSE;
    m_dwPlaces = dwPlaces;
    return TRUE;
}
