// The timer queue of reactors and task threads: ordered by expiry, O(log n) to schedule, cancel and re-arm.
#pragma once

#include <vector>

#include "talvo/event/timer_queue_base.h"

// Earlier expiry first; of equal ones the one that was pushed last.
//
// The order of a sorted list at the cost of a heap: m_Heap is a 4-ary heap of (expiry, push number), whose items point to
// slots; m_Slots holds the nodes and where each stands in the heap; m_Table finds a handler's slot (open addressing, linear
// probing, never more than half full). Once grown, nothing allocates.
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

private:
    struct CHeapItem {
        int64_t m_llExpires;
        uint64_t m_ullPushed;
        DWORD m_dwSlot;
    };
    struct CSlot {
        CNode m_Node;
        DWORD m_dwHeapIndex;
    };

    static bool FiresBefore(const CHeapItem& a, const CHeapItem& b);
    void Place(DWORD aIndex, const CHeapItem& aItem);
    void SiftUp(DWORD aIndex, const CHeapItem& aItem);
    void SiftDown(DWORD aIndex, const CHeapItem& aItem);
    void Settle(DWORD aIndex, const CHeapItem& aItem);
    void RemoveFromHeap(DWORD aIndex);

    DWORD Home(const ICmTimerHandler* aEh) const;
    DWORD Find(const ICmTimerHandler* aEh) const;
    void Grow();
    void RemoveFromTable(DWORD aPosition);
    void RemoveSlot(DWORD aPosition);

    std::vector<CHeapItem> m_Heap;
    std::vector<CSlot> m_Slots;
    std::vector<DWORD> m_FreeSlots;
    std::vector<DWORD> m_Table;  // slots; EMPTY where none
    uint64_t m_ullPushes = 0;
};
