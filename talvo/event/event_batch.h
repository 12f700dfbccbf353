// A batch of events, which a thread runs before it checks its handles and timers again.
#pragma once

#include "talvo/base/ref_ptr.h"

class CCmThreadLink;

namespace talvo {

// The queue creates a batch in its thread around the events. Batches may be nested. Events may post to another thread with
// CCmThreadLink::PostEventQuietly; the batch then wakes that thread once, at its end. An immediate wake-up would preempt this
// thread for the first event, and the other thread would sleep again before the second.
class CEventBatch {
public:
    CEventBatch();
    ~CEventBatch();
    CEventBatch(const CEventBatch&) = delete;
    CEventBatch& operator=(const CEventBatch&) = delete;

    // The calling thread's innermost batch; null outside of events.
    static CEventBatch* Current();

    void WakeAtEnd(CCmThreadLink& aLink);

private:
    CEventBatch* const m_pOuter;
    CCmRefPtrT<CCmThreadLink> m_pToWake;
};

}  // namespace talvo
