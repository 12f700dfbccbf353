// A batch of callbacks, which a thread runs before it checks its handles again.
#pragma once

#include "talvo/base/ref_ptr.h"

class CCmThreadLink;

namespace talvo {

// A queue of events or timers creates a batch in its thread around the callbacks. Batches may be nested. Callbacks may post to
// another thread with CCmThreadLink::PostEventQuietly; the batch then wakes that thread once, at its end. An immediate wake-up
// would preempt this thread for the first event, and the other thread would sleep again before the second.
//
// A callback that takes long, or waits for the other thread without a call of CCmThreadLink, delays the events by at most a
// tick: the loop of a reactor wakes each tick and runs them.
class CEventBatch {
public:
    CEventBatch();
    ~CEventBatch();
    CEventBatch(const CEventBatch&) = delete;
    CEventBatch& operator=(const CEventBatch&) = delete;

    // The calling thread's innermost batch; null outside of such callbacks.
    static CEventBatch* Current();

    void WakeAtEnd(CCmThreadLink& aLink);

private:
    CEventBatch* const m_pOuter;
    CCmRefPtrT<CCmThreadLink> m_pToWake;
};

}  // namespace talvo
