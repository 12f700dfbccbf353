// Limits a repeated line of the trace.
#pragma once

#include "talvo/base/clock.h"

namespace talvo {

// One line a second. One thread.
class CTracePace {
public:
    // TRUE: trace the line now.
    BOOL IsDue() {
        const int64_t llNow = CCmClock::GetTimeOfDayUsec();
        if (llNow < m_llNextUsec)
            return FALSE;
        m_llNextUsec = llNow + 1000000;
        return TRUE;
    }

private:
    int64_t m_llNextUsec = 0;
};

}  // namespace talvo
