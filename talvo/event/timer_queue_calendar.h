// A timing wheel for many timers of coarse precision.
#pragma once

#include <atomic>
#include <forward_list>
#include <memory>
#include <unordered_map>

#include "talvo/event/event_queue.h"
#include "talvo/event/timer_queue_base.h"

// O(1) to schedule and fire, with the precision of one slot. Cancelling searches one slot. The wheel turns by one slot a tick:
// call Tick in the queue's thread, or PostTick from the thread with the beat, once every slot interval. The tick fires due
// timers; in one slot the last that was pushed fires first. The base's CheckExpire fires by the clock: do not mix it with
// ticks.
class TALVO_API CCmTimerQueueCalendar : public CCmTimerQueueBase {
public:
    // aSlotInterval: milliseconds, at least 10. aMaxInterval: milliseconds; longer timers fire early, after one turn of the
    // wheel. aQueue: the queue of this object's thread, not owned; null: the calling thread's.
    CCmTimerQueueCalendar(DWORD aSlotInterval, DWORD aMaxInterval, ICmEventQueue* aQueue);
    ~CCmTimerQueueCalendar() override;

    // Turns the wheel by one slot and fires the timers there. Returns their number.
    int Tick();

    // Any thread: makes the queue's thread tick. Ticks that wait there run together. CM_ERROR_NULL_POINTER: there is no event
    // queue. Otherwise the result of the post. The queue's thread must be alive, and must run the posted ticks before this
    // object is destroyed.
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
    const std::unique_ptr<CSlot[]> m_pSlots;  // m_dwMaxSlotNumber + 1 list heads; null: memory ran out
    DWORD m_dwCurrentSlot = 0;
    std::unordered_map<ICmTimerHandler*, DWORD> m_Handlers;  // the slot of each handler's node
    ICmEventQueue* m_pEventQueue;                            // not owned
    std::atomic<DWORD> m_dwPostedTicks{0};
};
