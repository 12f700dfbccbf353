// What all timer queues share: the rules of scheduling and firing. How nodes are kept is the concrete queue's.
#pragma once

#include "talvo/base/mutex.h"
#include "talvo/event/timer_queue.h"

class TALVO_API CCmTimerQueueBase : public ICmTimerQueue {
public:
    static constexpr DWORD COUNT_WITHOUT_END = 0xFFFFFFFF;

    struct CNode {
        ICmTimerHandler* m_pEh = nullptr;  // not owned
        void* m_pArg = nullptr;
        int64_t m_llInterval = 0;  // microseconds
        int64_t m_llExpires = 0;   // microseconds on the clock of CCmTimeValue::GetTimeOfDay, in 64 bits: no year 2038
        DWORD m_dwCount = 0;       // firings left; COUNT_WITHOUT_END: until cancelled
    };

    // aObserver (may be null, not owned) is called with OnObserve("TimerQueue") when the queue goes from empty to non-empty, so
    // that a sleeping loop can recompute its wait.
    explicit CCmTimerQueueBase(ICmObserver* aObserver) : m_pObserver(aObserver) {}
    ~CCmTimerQueueBase() override;
    CCmTimerQueueBase(const CCmTimerQueueBase&) = delete;
    CCmTimerQueueBase& operator=(const CCmTimerQueueBase&) = delete;

    CmResult ScheduleTimer(ICmTimerHandler* aEh, void* aArg, const CCmTimeValue& aInterval, unsigned long aCount) override;
    CmResult CancelTimer(ICmTimerHandler* aEh) override;

    // The first expiry; CCmTimeValue::s_tvMax when the queue is empty. From the year 2038 on it is always that.
    CCmTimeValue GetEarliestTime();
    // The same in microseconds and for any year. FALSE: the queue is empty.
    BOOL GetEarliestUsec(int64_t& aExpires);

    // Fires what was due when the call began and returns how many. Timers that a callback schedules with nothing to wait are
    // due at once, but fire at the next call: one that re-arms itself neither holds the loop nor lets it sleep. One that a
    // callback cancels does not fire. aRemainTime (may be null) receives how long the next one is away, never negative, s_tvMax
    // if there is none.
    int CheckExpire(CCmTimeValue* aRemainTime);

    // Ends the queue's use: objects whose deletion waits for a timer are deleted now, all other timers are dropped unfired.
    // Every concrete queue's destructor calls it.
    void RunPendingDeletions();

    // An aArg that marks a timer as the deferred deletion of an object, which has to happen even when the queue ends first or
    // has no memory; its handler is a CCmTimerDelete.
    static void* GetDeletionArg();

protected:
    // What PushNode_l and PushNextPassNode_l return when there is no memory.
    static constexpr int NO_MEMORY = -1;

    // 0: inserted. 1: inserted in place of the node that the handler had. Anything else: failed.
    virtual int PushNode_l(const CNode& aNode) = 0;
    // 0: removed. 1: the handler has none.
    virtual int EraseNode_l(ICmTimerHandler* aEh) = 0;
    // Puts a node back whose expiry was advanced. 0, or anything else on failure.
    virtual int RePushNode_l(const CNode& aNode) = 0;
    // Takes out the node that expires first. 0, or -1 when the queue is empty.
    virtual int PopFirstNode_l(CNode& aNode) = 0;
    // The first expiry in microseconds. 0, or -1 when the queue is empty.
    virtual int GetEarliestTime_l(int64_t& aExpires) const = 0;
    // Takes out the node that expires first, if it is due at aNow, and puts it back at its next expiry if it has one: one step
    // for a queue that can do better than to pop and to push. FALSE: none is due.
    virtual BOOL PopDueNode_l(int64_t aNow, CNode& aNode);

    // As PushNode_l for a node that is due, but not in the pass under way. One microsecond later unless overridden.
    virtual int PushNextPassNode_l(const CNode& aNode);
    // A pass begins or ends: nodes for the next pass are like any other from now on, due at aNow.
    virtual void AdmitNextPassNodes_l(int64_t aNow);

    // Counts one firing at aNow and moves the expiry on. FALSE: that was the last.
    static BOOL Advance(CNode& aNode, int64_t aNow);

    CCmMutexNullSingleThread m_Mutex;

private:
    int FirePass_i(int64_t aNow);
    void AdmitNextPass_i(int64_t aNow);
    void RunDeletionsWithoutNode_i(const CCmTimeValue& aNow);

    ICmObserver* m_pObserver;                // not owned
    CCmTimerDelete* m_pDeletions = nullptr;  // those for which there was no memory; due at once
    int64_t m_llPassNow = 0;                 // the moment up to which the pass under way fires
    BOOL m_bInPass = FALSE;                  // a callback is under way
    BOOL m_bNextPass = FALSE;                // a callback scheduled something due, which waits for the next pass
};
