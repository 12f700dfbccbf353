// The timer queue of reactors and task threads: ordered by expiry, O(log n) to schedule, cancel and re-arm.
#pragma once

#include <vector>

#include "talvo/event/timer_queue_base.h"

// Earlier expiry first; of equal ones the one that was pushed last.
//
// The order of a sorted list at the cost of a heap. What it costs is the memory it touches, so that is kept small and together:
// m_Heap is a 4-ary heap whose four siblings, a family, lie in one cache line. Its items point to slots: m_Slots has what is
// needed when a timer fires, m_HeapIndexes where each slot's item stands, which sifting writes at every level. m_Table finds a
// handler's slot (open addressing, linear probing, never more than half full); the hash beside the slot answers for nearly
// every probe. All grow together; once grown, nothing allocates.
//
// Timers for the next pass stand behind the heap, in any order, until they are admitted to it:
//
//   | heap, by expiry ... | for the next pass ... | free ... |
//  ROOT                 m_dwEnd               m_dwTaken
class TALVO_API CCmTimerQueueOrderedList : public CCmTimerQueueBase {
public:
    explicit CCmTimerQueueOrderedList(ICmObserver* aObserver = nullptr) : CCmTimerQueueBase(aObserver) {}
    ~CCmTimerQueueOrderedList() override;

protected:
    int PushNode_l(const CNode& aNode) override;
    int EraseNode_l(ICmTimerHandler* aEh) override;
    int RePushNode_l(const CNode& aNode) override;
    int PopFirstNode_l(CNode& aNode) override;
    int GetEarliestTime_l(int64_t& aExpires) const override;
    BOOL PopDueNode_l(int64_t aNow, CNode& aNode) override;
    int PushNextPassNode_l(const CNode& aNode) override;
    void AdmitNextPassNodes_l(int64_t aNow) override;

private:
    static constexpr DWORD ARITY = 4;
    static constexpr DWORD ROOT = ARITY - 1;  // families begin at multiples of four; the root's own has no other member

    // Those behind the end never expire, and their slots are the free ones. Two words, to be handed on in registers: what was
    // just written to memory in smaller pieces is slow to read back.
    struct CHeapItem {
        CHeapItem() = default;
        CHeapItem(int64_t aExpires, DWORD aOrder, DWORD aSlot)
            : m_llExpires(aExpires), m_ullOrderAndSlot(uint64_t{aOrder} << 32 | aSlot) {}
        DWORD GetSlot() const { return static_cast<DWORD>(m_ullOrderAndSlot); }

        int64_t m_llExpires;
        uint64_t m_ullOrderAndSlot;  // the order counts down from push to push
    };
    struct alignas(ARITY * sizeof(CHeapItem)) CFamily {
        CHeapItem m_Items[ARITY];
    };
    struct CSlot {
        ICmTimerHandler* m_pEh;
        void* m_pArg;
        int64_t m_llInterval;
        DWORD m_dwCount;
    };
    struct CEntry {
        DWORD m_dwHash;
        DWORD m_dwSlot;  // EMPTY: none
    };

    static bool FiresBefore(const CHeapItem& a, const CHeapItem& b);
    CHeapItem& Item(DWORD aIndex) { return m_Heap[aIndex / ARITY].m_Items[aIndex % ARITY]; }
    DWORD FirstOfFamily(DWORD aFamily) const;
    void Place(DWORD aIndex, CHeapItem aItem);
    void SiftUp(DWORD aIndex, CHeapItem aItem);
    void SiftDown(DWORD aIndex, CHeapItem aItem);
    void Settle(DWORD aIndex, CHeapItem aItem);
    DWORD NextOrder();
    void Renumber();

    BOOL HasRoom();
    void Append(CHeapItem aItem);
    void LoadFirst(CNode& aNode);
    void Remove(DWORD aIndex);
    void FreePlace(DWORD aIndex, DWORD aSlot);
    void RemoveFromTable(DWORD aPosition);
    void RemoveFirst();
    DWORD Home(DWORD aHash) const { return static_cast<DWORD>(aHash * uint64_t{m_Table.size()} >> 32); }
    DWORD Find(DWORD aHash, const ICmTimerHandler* aEh) const;
    void Grow();

    std::vector<CFamily> m_Heap;
    std::vector<CSlot> m_Slots;
    std::vector<DWORD> m_HeapIndexes;
    std::vector<CEntry> m_Table;
    DWORD m_dwEnd = ROOT;         // behind the last item of the heap
    DWORD m_dwTaken = ROOT;       // behind the last item at all
    int64_t m_llNextPassNow = 0;  // when those for the next pass are due
    // Begins so low that the numbers soon run out: what then happens once in four billion pushes is no rarity in tests.
    DWORD m_dwNextOrder = 1000;
};
