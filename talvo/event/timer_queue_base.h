// The common part of all timer queues: the rules of scheduling and firing. A concrete queue stores the nodes.
#pragma once

#include "talvo/base/mutex.h"
#include "talvo/event/timer_queue.h"

// Derived classes store the timers of one thread.
class TALVO_API CCmTimerQueueBase : public ICmTimerQueue {
public:
    static constexpr CmDword COUNT_WITHOUT_END = 0xFFFFFFFF;  // a timer that fires until it is cancelled

    // One timer.
    struct CNode {
        ICmTimerHandler* m_pEh = nullptr;  // not owned
        void* m_pArg = nullptr;            // for OnTimeout
        int64_t m_llInterval = 0;          // microseconds
        int64_t m_llExpires = 0;           // microseconds on the clock of CCmTimeValue::GetTimeOfDay, in 64 bits: no year 2038
        CmDword m_dwCount = 0;             // firings left; COUNT_WITHOUT_END: until cancelled
    };

    // aObserver (may be null, not owned) gets OnObserve("TimerQueue") when the queue is no longer empty, so that a sleeping
    // loop can recompute its wait.
    explicit CCmTimerQueueBase(ICmObserver* aObserver) : m_pObserver(aObserver) {}
    ~CCmTimerQueueBase() override;
    CCmTimerQueueBase(const CCmTimerQueueBase&) = delete;
    CCmTimerQueueBase& operator=(const CCmTimerQueueBase&) = delete;

    CmResult ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval, unsigned long aCount) override;
    CmResult CancelTimer(ICmTimerHandler* aEh) override;

    // The first expiry; CCmTimeValue::s_tvMax if the queue is empty. From the year 2038 on it is always s_tvMax.
    CCmTimeValue GetEarliestTime();
    // aExpires (out): the same in microseconds and for any year. FALSE: the queue is empty.
    CmBool GetEarliestUsec(int64_t& aExpires);

    // Fires the timers that were due at the start of the call and returns their number. A timer that a callback schedules
    // without a delay is due at once but fires at the next call: a timer that re-arms itself neither blocks the loop nor lets
    // it sleep. A timer that a callback cancels does not fire. aRemainTime (out, may be null): the time to the next expiry,
    // never negative; s_tvMax if there is none.
    int CheckExpire(CCmTimeValue* aRemainTime);

    // Ends the queue's use: deletes the objects whose deletion waits for a timer now, and drops all other timers. The
    // destructor of every concrete queue calls it.
    void RunPendingDeletions();

    // An aArg that marks a timer as the deferred deletion of an object. The handler is a CCmTimerDelete. It is due at once,
    // whatever its interval, and runs in the next pass before all timers, also if the queue ends first. It cannot be cancelled.
    static void* GetDeletionArg();

protected:
    // The result of PushNode_l and PushNextPassNode_l if there is no memory.
    static constexpr int NO_MEMORY = -1;

    // ScheduleTimer with aPush in place of PushNode_l, so that a concrete queue can have it in line. See timer_schedule.h.
    template <class Push>
    CmResult Schedule_i(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval, unsigned long aCount, Push aPush);

    // 0: inserted. 1: replaced the handler's node. Any other result: failed.
    virtual int PushNode_l(const CNode& aNode) = 0;
    // 0: removed. 1: the handler has no node.
    virtual int EraseNode_l(ICmTimerHandler* aEh) = 0;
    // Inserts a node again whose expiry was advanced. 0, or another number on failure.
    virtual int RePushNode_l(const CNode& aNode) = 0;
    // Removes the node that expires first. aNode (out). 0, or -1 if the queue is empty.
    virtual int PopFirstNode_l(CNode& aNode) = 0;
    // aExpires (out): the first expiry in microseconds. 0, or -1 if the queue is empty.
    virtual int GetEarliestTime_l(int64_t& aExpires) = 0;
    // Removes the node that expires first, if it is due at aNow, and inserts it again at its next expiry, if it has one. A
    // concrete queue may do this in one step instead of a pop and a push. aNode (out). FALSE: none is due.
    virtual CmBool PopDueNode_l(int64_t aNow, CNode& aNode);

    // As PushNode_l for a node that is due, but not in the current pass. The default makes it due one microsecond later.
    virtual int PushNextPassNode_l(const CNode& aNode);
    // A pass begins or ends: from now on the nodes for the next pass are ordinary nodes, due at aNow.
    virtual void AdmitNextPassNodes_l(int64_t aNow);
    // The queue's use ends, and no node waits for the next pass. May remove all nodes, without access to their handlers. The
    // default leaves them.
    virtual void DropNodes_l();

    // The deletions that are due, of which a concrete queue has no nodes. Returns their number.
    CmBool HasDeletions() const { return m_pDeletions != nullptr; }
    int RunDeletions_l(const CCmTimeValue& aNow);

    // Counts one firing at aNow and advances the expiry. FALSE: that was the last.
    static CmBool Advance(CNode& aNode, int64_t aNow);

    CCmMutexNullSingleThread m_Mutex;

private:
    int FirePass_i(int64_t aNow);
    void AdmitNextPass_i(int64_t aNow);
    CmResult AddDeletion_i(CCmTimerDelete& aDeletion);

    static char s_cDeletion;

    ICmObserver* m_pObserver;                // not owned
    CCmTimerDelete* m_pDeletions = nullptr;  // due at once; the last one first
    int64_t m_llPassNow = 0;                 // the current pass fires up to this time
    CmBool m_bInPass = CM_FALSE;             // a callback is under way
    CmBool m_bNextPass = CM_FALSE;           // a callback scheduled a due timer, which waits for the next pass
};
