// Limits a repeated line of the trace.
#pragma once

#include "talvo/base/clock.h"

namespace talvo {

// One line a second. One thread.
class CTracePace {
public:
    // TRUE: trace the line now.
    CmBool IsDue() {
        const int64_t llNow = CCmClock::GetTimeOfDayUsec();
        if (llNow < m_llNextUsec)
            return CM_FALSE;
        m_llNextUsec = llNow + 1000000;
        return CM_TRUE;
    }

private:
    int64_t m_llNextUsec = 0;
};

}  // namespace talvo
