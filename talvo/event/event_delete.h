// Deletion by an event of the owning thread: the object outlives every event that was posted there before.
#pragma once

#include "talvo/base/trace.h"
#include "talvo/event/event_queue.h"
#include "talvo/event/thread_link.h"

// Deletes its target in the owning thread when it runs, or when that thread's queue ends before it runs.
template <class TargetType>
class CCmEventDeleteT : public ICmEvent {
public:
    explicit CCmEventDeleteT(TargetType* aTarget) : m_pTarget(aTarget) {}  // aTarget: owned from now on
    ~CCmEventDeleteT() override { delete m_pTarget; }

    CmResult OnEventFire() override { return CM_OK; }  // the queue deletes the target when it destroys the event

    // Posts this event to aThread. With any result but CM_ERROR_ALREADY_INITIALIZED, the queue owns this object and its target
    // afterwards, or both are deleted. CM_ERROR_ALREADY_INITIALIZED: launched before; nothing changes.
    CmResult Launch(CCmThreadLink& aThread) {
        if (m_bLaunched)
            return CM_ERROR_ALREADY_INITIALIZED;
        m_bLaunched = CM_TRUE;
        const CmResult rv = aThread.PostEvent(this);
        if (rv != CM_OK)
            CM_ERROR_TRACE("CCmEventDeleteT::Launch, PostEvent() failed! rv=" << rv);
        return rv;
    }

private:
    TargetType* m_pTarget;
    CmBool m_bLaunched = CM_FALSE;
};
