// Deletion from a zero-delay timer of the calling thread: the object outlives the call that released it.
#pragma once

#include "talvo/base/reference_control.h"
#include "talvo/event/timer_queue.h"

// Schedules this handler in the calling thread's timer queue with the deletion mark. CM_OK, also if it was scheduled before;
// otherwise the failure, which is traced.
TALVO_API CmResult cm_schedule_deletion(CCmTimerDelete* aHandler);

// One-shot: deletes aTarget when it fires. A member of its target, deleted with it.
template <class TargetType>
class CCmTimerDeleteT : public CCmTimerDelete {
public:
    explicit CCmTimerDeleteT(TargetType* aTarget) : m_pTarget(aTarget) {}  // aTarget: deletes it once

    // Call it once, in the thread whose timer queue deletes the target. CM_ERROR_ALREADY_INITIALIZED: launched before. Any
    // other failure: there is no timer queue to delete it.
    CmResult Launch() {
        if (m_bLaunched)
            return CM_ERROR_ALREADY_INITIALIZED;
        m_bLaunched = CM_TRUE;
        return cm_schedule_deletion(this);
    }

    void OnTimeout(const CCmTimeValue&, void*) override { delete m_pTarget; }

private:
    TargetType* m_pTarget;
    CmBool m_bLaunched = CM_FALSE;
};

// A counting base whose object is deleted by a timer of the thread that released it last, after the current call has returned
// to the loop. If that thread's timer queue ends first, the object is deleted with it. If the thread has no timer queue (it is
// ending), the object is deleted at once.
template <class MutexType>
class CCmReferenceControlTimerDeleteT : public CCmReferenceControlT<MutexType> {
protected:
    CCmReferenceControlTimerDeleteT() : m_TimerDelete(this) {}

    void OnReferenceDestory() override {
        const CmResult rv = m_TimerDelete.Launch();
        if (rv != CM_OK && rv != CM_ERROR_ALREADY_INITIALIZED)
            delete this;
    }

private:
    friend class CCmTimerDeleteT<CCmReferenceControlTimerDeleteT>;
    CCmTimerDeleteT<CCmReferenceControlTimerDeleteT> m_TimerDelete;
};
