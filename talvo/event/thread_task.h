// Threads of the application without a reactor: an event queue, with or without timers.
#pragma once

#include <atomic>
#include <memory>

#include "talvo/base/stop_flag.h"
#include "talvo/event/event_queue_using_condition_variable.h"
#include "talvo/event/thread.h"
#include "talvo/event/timer_queue_base.h"

// The common part of both: a queue whose loop ends with the batch that contains the stop. Events posted behind that batch are
// destroyed and do not run.
class TALVO_API CCmThreadTaskBase : public ACmThread {
public:
    ~CCmThreadTaskBase() override;

    CmResult Create(int aType, TFlag aFlag = CCmThreadManager::TF_JOINABLE) override;
    // Posts a stop, once. Any thread, also repeatedly. CM_OK, or the result of the post.
    CmResult Stop(CCmTimeValue* aTimeout = nullptr) override;
    void OnThreadInit() override;
    ICmEventQueue* GetEventQueue() override { return &m_EventQueue; }

protected:
    // Waits at most aTimeout (null: no limit) for events and runs at most aMaxCount of them.
    void RunEvents_i(CCmTimeValue* aTimeout, unsigned long aMaxCount);
    // Ends the loop: refuses posts and destroys the pending events without running them.
    void EndEvents_i();
    CmBool IsStopped_i() const { return m_StopFlag.IsFlagStopped(); }

private:
    // A member of the thread, so that a stop needs no memory.
    class CStopEvent final : public ICmEvent {
    public:
        explicit CStopEvent(CCmStopFlag& aFlag) : m_Flag(aFlag) {}
        CmResult OnEventFire() override;
        void OnDestorySelf() override {}

    private:
        CCmStopFlag& m_Flag;
    };

    CCmStopFlag m_StopFlag;
    CStopEvent m_StopEvent{m_StopFlag};
    std::atomic<CmBool> m_bStopPosted{CM_FALSE};
    CCmEventQueueUsingConditionVariable m_EventQueue;
};

// Events and timers. At most 5 events run between two checks of the timers.
class TALVO_API CCmThreadTask : public CCmThreadTaskBase {
public:
    ~CCmThreadTask() override;
    void OnThreadInit() override;
    void OnThreadRun() override;
    ICmTimerQueue* GetTimerQueue() override { return m_pTimerQueue.get(); }

private:
    std::unique_ptr<CCmTimerQueueBase> m_pTimerQueue;
};

// Events without timers.
class TALVO_API CCmThreadTaskWithEventQueueOnly : public CCmThreadTaskBase {
public:
    ~CCmThreadTaskWithEventQueueOnly() override;
    CmResult Stop(CCmTimeValue* aTimeout = nullptr) override;
    void OnThreadRun() override;
};
