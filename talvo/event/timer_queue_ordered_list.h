// The timer queue of reactors and task threads: ordered by expiry, O(log n) to schedule, cancel and re-arm.
#pragma once

#include <vector>

#include "talvo/event/timer_queue_base.h"

// The earlier expiry fires first; of equal ones the last that was pushed.
//
// This gives the order of a sorted list at the cost of a heap. The cost is mostly memory access, so the data is small and
// compact. m_Heap is a 4-ary heap; four siblings, a family, share one cache line. Its items refer to slots. m_Slots has the
// data for firing, and m_HeapIndexes the position of each slot's item, which sifting writes at every level. m_Table maps a
// handler to its slot (open addressing, linear probing, at most half full); the hash beside the slot decides nearly every
// probe. All grow together; once grown, they allocate nothing.
//
// Timers for the next pass are behind the heap, in any order, until the pass admits them:
//
//   | heap, by expiry ... | for the next pass ... | free ... |
//  ROOT                 m_dwEnd               m_dwTaken
class TALVO_API CCmTimerQueueOrderedList : public CCmTimerQueueBase {
public:
    // As CCmTimerQueueBase.
    explicit CCmTimerQueueOrderedList(ICmObserver* aObserver = nullptr) : CCmTimerQueueBase(aObserver) {}
    ~CCmTimerQueueOrderedList() override;

protected:
    int PushNode_l(const CNode& aNode) override;
    int EraseNode_l(ICmTimerHandler* aEh) override;
    int RePushNode_l(const CNode& aNode) override;
    int PopFirstNode_l(CNode& aNode) override;
    int GetEarliestTime_l(int64_t& aExpires) const override;
    CmBool PopDueNode_l(int64_t aNow, CNode& aNode) override;
    int PushNextPassNode_l(const CNode& aNode) override;
    void AdmitNextPassNodes_l(int64_t aNow) override;

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

        int64_t m_llExpires;
        uint64_t m_ullOrderAndSlot;  // the order counts down with each push
    };
    struct alignas(ARITY * sizeof(CHeapItem)) CFamily {
        CHeapItem m_Items[ARITY];
    };
    struct CSlot {
        ICmTimerHandler* m_pEh;
        void* m_pArg;
        int64_t m_llInterval;
        CmDword m_dwCount;
    };
    struct CEntry {
        CmDword m_dwHash;
        CmDword m_dwSlot;  // EMPTY: none
    };

    static bool FiresBefore(const CHeapItem& a, const CHeapItem& b);
    CHeapItem& Item(CmDword aIndex) { return m_Heap[aIndex / ARITY].m_Items[aIndex % ARITY]; }
    CmDword FirstOfFamily(CmDword aFamily) const;
    void Place(CmDword aIndex, CHeapItem aItem);
    void SiftUp(CmDword aIndex, CHeapItem aItem);
    void SiftDown(CmDword aIndex, CHeapItem aItem);
    void Settle(CmDword aIndex, CHeapItem aItem);
    CmDword NextOrder();
    void Renumber();

    CmBool HasRoom();
    void Append(CHeapItem aItem);
    void LoadFirst(CNode& aNode);
    void Remove(CmDword aIndex);
    void FreePlace(CmDword aIndex, CmDword aSlot);
    void RemoveFromTable(CmDword aPosition);
    void RemoveFirst();
    CmDword Home(CmDword aHash) const { return static_cast<CmDword>(aHash * uint64_t{m_Table.size()} >> 32); }
    CmDword Find(CmDword aHash, const ICmTimerHandler* aEh) const;
    void Grow();

    std::vector<CFamily> m_Heap;
    std::vector<CSlot> m_Slots;
    std::vector<CmDword> m_HeapIndexes;
    std::vector<CEntry> m_Table;
    CmDword m_dwEnd = ROOT;       // behind the last item of the heap
    CmDword m_dwTaken = ROOT;     // behind the last item of all
    int64_t m_llNextPassNow = 0;  // when the timers for the next pass are due
    // Begins low, so that the numbers soon run out: tests then cover a case that comes once in four billion pushes.
    CmDword m_dwNextOrder = 1000;
};
