// The timer queue of reactors and task threads: ordered by expiry, O(log n) to schedule, cancel and re-arm.
#pragma once

#include <unordered_map>

#include "talvo/base/plain_array.h"
#include "talvo/event/timer_queue_base.h"

// The earlier expiry fires first; of equal ones the last that was pushed.
//
// This gives the order of a sorted list at the cost of a heap. The cost is mostly memory access, so the data is small, and an
// operation touches little of it. m_Heap is a 4-ary heap; four siblings, a family, share one cache line. Its items refer to
// slots. m_Slots has the data for firing, and m_HeapIndexes the position of each slot's item, which sifting writes at every
// level. They grow together; once grown, they allocate nothing. The first queue that takes a handler notes the slot in it; any
// other queue has it in m_Others.
//
// A last firing that is scheduled again for later keeps its item: only the slot changes. The time of the item is then a lower
// bound, and the item sinks to its place when it has become the first.
//
// Timers for the next pass are behind the heap, in any order, until the pass admits them:
//
//   | heap, by expiry ... | for the next pass ... | free ... | not used yet ... |
//  ROOT                 m_dwEnd               m_dwTaken  m_dwReady
class TALVO_API CCmTimerQueueOrderedList : public CCmTimerQueueBase {
public:
    // As CCmTimerQueueBase.
    explicit CCmTimerQueueOrderedList(ICmObserver* aObserver = nullptr);
    ~CCmTimerQueueOrderedList() override;

    CmResult ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval, unsigned long aCount) override;

protected:
    int PushNode_l(const CNode& aNode) final;
    int EraseNode_l(ICmTimerHandler* aEh) override;
    int RePushNode_l(const CNode& aNode) override;
    int PopFirstNode_l(CNode& aNode) override;
    int GetEarliestTime_l(int64_t& aExpires) override;
    CmBool PopDueNode_l(int64_t aNow, CNode& aNode) override;
    int PushNextPassNode_l(const CNode& aNode) override;
    void AdmitNextPassNodes_l(int64_t aNow) override;
    void DropNodes_l() override;

private:
    static constexpr CmDword ARITY = 4;
    static constexpr CmDword ROOT = ARITY - 1;  // families begin at multiples of four; the root has no siblings

    // Items behind the end never expire, and their slots are free. Two words, so that they fit registers: reading back memory
    // that was just written in smaller pieces is slow.
    struct CHeapItem {
        CHeapItem() = default;
        CHeapItem(int64_t aExpires, CmDword aOrder, CmDword aSlot)
            : m_llExpires(aExpires), m_ullOrderAndSlot(uint64_t{aOrder} << 32 | aSlot) {}
        CmDword GetSlot() const { return static_cast<CmDword>(m_ullOrderAndSlot); }
        CmDword GetOrder() const { return static_cast<CmDword>(m_ullOrderAndSlot >> 32); }

        int64_t m_llExpires;
        uint64_t m_ullOrderAndSlot;  // the order counts down with each push
    };
    // Its order of members keeps the compiler from copying two words of a node, just written, by one load.
    struct CSlot {
        ICmTimerHandler* m_pEh;
        int64_t m_llTime;  // of the last firing; the interval if more than one is left
        void* m_pArg;
        CmDword m_dwCount;  // of firings left
        CmDword m_dwOrder;
    };

    static bool FiresBefore(const CHeapItem& a, const CHeapItem& b);
    CHeapItem& Item(CmDword aIndex) { return m_Heap[aIndex]; }
    CmDword FirstOfFamily(CmDword aFamily) const;
    void Place(CmDword aIndex, CHeapItem aItem);
    void SiftUp(CmDword aIndex, CHeapItem aItem);
    void SiftDown(CmDword aIndex, CHeapItem aItem);
    void Settle(CmDword aIndex, CHeapItem aItem);
    CmDword NextOrder();
    void Renumber();

    CmDword Find(const ICmTimerHandler* aEh) const;
    CmDword FindOther(const ICmTimerHandler* aEh) const;
    int Push_i(const CNode& aNode);
    CmDword Enter(ICmTimerHandler* aEh, bool aIsOurs);
    CmBool IsOurs(uint64_t aNote) const { return aNote >> 32 == m_dwNumber; }
    CmBool NoteFirstSlot(ICmTimerHandler* aEh, CmDword aSlot);
    void Forget(ICmTimerHandler* aEh);
    void Reschedule(CmDword aSlot, const CNode& aNode);
    void Fill(const CHeapItem& aItem, const CNode& aNode);
    void Append(CHeapItem aItem);
    void Remove(CmDword aIndex);
    void FreePlace(CmDword aIndex, CmDword aSlot);
    CmBool IsLate(const CHeapItem& aItem) const;
    void SinkFirst();
    void LoadFirst(CNode& aNode);
    CmBool MakeRoom();
    CmBool Grow();

    CmDword m_dwNumber;  // of this queue, in the notes of its handlers
    talvo::CPlainArray<CHeapItem> m_Heap;
    talvo::CPlainArray<CSlot> m_Slots;
    talvo::CPlainArray<CmDword> m_HeapIndexes;
    CmDword m_dwPlaces = 0;  // the size of each of the three
    std::unordered_map<const ICmTimerHandler*, CmDword> m_Others;
    CmDword m_dwEnd = ROOT;       // behind the last item of the heap
    CmDword m_dwTaken = ROOT;     // behind the last item of all
    CmDword m_dwReady = ROOT;     // behind the places that have an item or a free slot
    int64_t m_llNextPassNow = 0;  // when the timers for the next pass are due
    // Begins low, so that the numbers soon run out: tests then cover a case that comes once in four billion pushes.
    CmDword m_dwNextOrder = 1000;
};
