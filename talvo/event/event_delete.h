// Deletion by an event of the owning thread: the object outlives everything that was posted there before.
#pragma once

#include "talvo/base/trace.h"
#include "talvo/event/event_queue.h"
#include "talvo/event/thread_link.h"

// Deletes its target when it runs in the owning thread, and also when that thread's queue ends before it ran.
template <class TargetType>
class CCmEventDeleteT : public ICmEvent {
public:
    explicit CCmEventDeleteT(TargetType* aTarget) : m_pTarget(aTarget) {}
    ~CCmEventDeleteT() override { delete m_pTarget; }

    CmResult OnEventFire() override { return CM_OK; }  // the deletion follows when the queue destroys the event

    // Posts this event to aThread. Whatever the result, this object and its target belong to the queue afterwards or are gone.
    // CM_ERROR_ALREADY_INITIALIZED: launched before, nothing done.
    CmResult Launch(CCmThreadLink& aThread) {
        if (m_bLaunched)
            return CM_ERROR_ALREADY_INITIALIZED;
        m_bLaunched = TRUE;
        const CmResult rv = aThread.PostEvent(this);
        if (rv != CM_OK)
            CM_ERROR_TRACE("CCmEventDeleteT::Launch, PostEvent() failed! rv=" << rv);
        return rv;
    }

private:
    TargetType* m_pTarget;
    BOOL m_bLaunched = FALSE;
};
