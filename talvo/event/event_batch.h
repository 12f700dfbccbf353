// The events that a thread runs between two looks around itself.
#pragma once

#include "talvo/base/ref_ptr.h"

class CCmThreadLink;

namespace talvo {

// Made by the queue that runs the events, in their thread; may be nested. A thread that they hand work to without hurry, see
// CCmThreadLink::PostEventQuietly, is woken once, when it ends: woken at once it would take this thread's processor away for
// the first piece of work, and sleep again when the second comes.
class CEventBatch {
public:
    CEventBatch();
    ~CEventBatch();
    CEventBatch(const CEventBatch&) = delete;
    CEventBatch& operator=(const CEventBatch&) = delete;

    // The calling thread's innermost; null outside of its events.
    static CEventBatch* Current();

    void WakeAtEnd(CCmThreadLink& aLink);

private:
    CEventBatch* const m_pOuter;
    CCmRefPtrT<CCmThreadLink> m_pToWake;
};

}  // namespace talvo
