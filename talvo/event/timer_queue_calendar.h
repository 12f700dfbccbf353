// A timing wheel for many timers of coarse precision.
#pragma once

#include <memory>
#include <unordered_map>

#include "talvo/base/ref_ptr.h"
#include "talvo/event/event_queue.h"
#include "talvo/event/timer_queue_base.h"

namespace talvo {
class CPostedTicks;
}

// O(1) to schedule, cancel and fire. In one slot the last timer that was pushed fires first. The wheel turns by one slot a
// tick, once every slot interval, by one of two calls:
//
//   Tick, in the queue's thread, counts slots and does not read the clock: a timer is up to one slot early.
//   PostTick, from the thread with the beat, also looks at the clock: a timer that is not yet due waits for a later tick, so it
//   is never early, and at most one slot and the delay of the event queue late. A repeating timer does not drift. If the
//   ticks are fewer than the slots that have passed on the clock, the wheel catches up, by one turn of it at most.
//
// A callback may turn the wheel, for example by a loop of its own: that turn first fires the timers that the outer one has
// left. It may also delete the calendar.
//
// The base's CheckExpire fires by the clock without turning the wheel: do not mix it with ticks. CCmPreciseTimerManager has a
// thread with a beat and makes calendars for it.
class TALVO_API CCmTimerQueueCalendar : public CCmTimerQueueBase {
public:
    // aSlotInterval: milliseconds, at least 10. aMaxInterval: milliseconds; longer timers fire early, after one turn of the
    // wheel. aQueue: the queue of this object's thread, not owned; null: the calling thread's. If memory runs out here, each
    // ScheduleTimer returns CM_ERROR_OUT_OF_MEMORY.
    CCmTimerQueueCalendar(CmDword aSlotInterval, CmDword aMaxInterval, ICmEventQueue* aQueue);
    ~CCmTimerQueueCalendar() override;

    // Turns the wheel by one slot and fires the timers there. Returns their number.
    int Tick();

    // Any thread, as long as the queue's thread and this object exist: makes the queue's thread tick. Ticks that wait there run
    // together; a repeating timer skips the periods that it has missed. Ticks that the event queue destroys without running
    // them run with the next one. Ticks that still wait when this object is destroyed do nothing. CM_ERROR_NULL_POINTER: there
    // is no event queue. CM_ERROR_OUT_OF_MEMORY: there was no memory for the wheel. Otherwise the result of the post.
    CmResult PostTick();

protected:
    int PushNode_l(const CNode& aNode) override;
    int EraseNode_l(ICmTimerHandler* aEh) override;
    int RePushNode_l(const CNode& aNode) override;
    int PopFirstNode_l(CNode& aNode) override;
    int GetEarliestTime_l(int64_t& aExpires) override;
    CmBool PopDueNode_l(int64_t aNow, CNode& aNode) override;

    // FALSE: memory ran out in the constructor.
    CmBool HasWheel_i() const { return m_pSlots != nullptr; }
    CmBool IsEmpty_i() const { return m_Handlers.empty() && !HasDeletions(); }
    // Posted ticks have run.
    virtual void OnTicked_i() {}

    ICmEventQueue* const m_pEventQueue;  // not owned

private:
    friend class talvo::CPostedTicks;

    struct CEntry {
        CNode m_Node;
        CEntry* m_pNext = nullptr;    // in its slot
        CEntry** m_ppBack = nullptr;  // null: in no slot
        bool m_bTurn = false;         // longer than a turn of the wheel: fires at the end of one
    };
    struct CFree {
        void operator()(CEntry** aSlots) const;
    };

    int64_t GetSlotUsec_i() const { return int64_t{m_dwSlotInterval} * 1000; }
    CmDword CountTurns_i(CmDword aTicks, int64_t aNow) const;
    int Turn_i(int64_t aNow, CmBool aByClock);
    void TakeSlot_i();
    CNode Take_i(CEntry& aEntry, int64_t aNow);
    void InsertUnique_i(const CCmTimeValue& aInterval, CEntry& aEntry);
    void Unlink_i(CEntry& aEntry);
    CEntry* FindFirst_i() const;
    CEntry*& SlotAt_i(CmDword aDistance) const;

    const CmDword m_dwSlotInterval;  // milliseconds
    const CmDword m_dwMaxSlotNumber;
    const CCmRefPtrT<talvo::CPostedTicks> m_pTicks;    // null: memory ran out
    const std::unique_ptr<CEntry*[], CFree> m_pSlots;  // m_dwMaxSlotNumber + 1 list heads; null: there are no ticks
    CEntry* m_pDue = nullptr;                          // the timers of the passed slots that have not fired
    CmDword m_dwCurrentSlot = 0;
    mutable CmDword m_dwNearest = 1;  // in ticks: nearer slots are empty
    int64_t m_llTurnedTo = 0;         // on the clock, in microseconds; valid while there are timers
    std::unordered_map<ICmTimerHandler*, CEntry> m_Handlers;
};
