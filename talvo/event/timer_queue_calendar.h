// A timing wheel for many timers of coarse precision.
#pragma once

#include <atomic>
#include <forward_list>
#include <memory>
#include <unordered_map>

#include "talvo/event/event_queue.h"
#include "talvo/event/timer_queue_base.h"

// O(1) to schedule and fire, at the price of a slot's precision; cancelling looks through one slot. The wheel turns by one slot
// a tick: call Tick in the queue's thread, or PostTick from the thread that keeps the beat, once every slot interval. Due
// timers fire from the tick; of one slot, the one that was pushed last fires first. CheckExpire of the base fires by the clock
// and is not meant to be mixed with ticks.
class TALVO_API CCmTimerQueueCalendar : public CCmTimerQueueBase {
public:
    // aSlotInterval: milliseconds, at least 10. aMaxInterval: milliseconds; longer timers fire early, one turn of the wheel
    // away. aQueue: the queue of this object's thread, not owned; null: the calling thread's.
    CCmTimerQueueCalendar(DWORD aSlotInterval, DWORD aMaxInterval, ICmEventQueue* aQueue);
    ~CCmTimerQueueCalendar() override;

    // Turns the wheel by one slot and fires what stands there. Returns how many fired.
    int Tick();

    // From any thread: has the queue's thread tick. Ticks that wait there are made up for together. CM_ERROR_NULL_POINTER
    // without an event queue, else the result of the post. The queue's thread must be alive, and run what was posted before
    // this object is destroyed.
    CmResult PostTick();

protected:
    int PushNode_l(const CNode& aNode) override;
    int EraseNode_l(ICmTimerHandler* aEh) override;
    int RePushNode_l(const CNode& aNode) override;
    int PopFirstNode_l(CNode& aNode) override;
    int GetEarliestTime_l(int64_t& aExpires) const override;

private:
    using CSlot = std::forward_list<CNode>;

    void InsertUnique_i(const CCmTimeValue& aInterval, CSlot& aSingle);
    DWORD DistanceOf_i(DWORD aSlot) const;
    BOOL FindFirst_i(ICmTimerHandler*& aEh, DWORD& aSlot) const;

    const DWORD m_dwSlotInterval;  // milliseconds
    const DWORD m_dwMaxSlotNumber;
    const std::unique_ptr<CSlot[]> m_pSlots;  // m_dwMaxSlotNumber + 1 list heads; null: there was no memory
    DWORD m_dwCurrentSlot = 0;
    std::unordered_map<ICmTimerHandler*, DWORD> m_Handlers;  // the slot where each handler's node stands
    ICmEventQueue* m_pEventQueue;                            // not owned
    std::atomic<DWORD> m_dwPostedTicks{0};
};
