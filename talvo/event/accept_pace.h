// Decides when to count the connections that wait in a listening handle.
#pragma once

#include <cstdint>
#include <utility>

#include "talvo/event/trial_pace.h"

namespace talvo {

// The count is a system call. It saves the wait of each further connection, so it pays only while connections come in bursts.
class CAcceptPace {
public:
    // A connection was accepted in turn aTurn. True: count now, and report the result to OnCount.
    bool IsWorthCounting(uint64_t aTurn) {
        const uint64_t ullBefore = std::exchange(m_ullTurn, aTurn);
        if (aTurn - ullBefore > 1)
            return false;  // the turn before had no connection
        return m_Trials.IsDue();
    }

    // aAny: some wait.
    void OnCount(bool aAny) { m_Trials.OnResult(aAny); }

private:
    uint64_t m_ullTurn = 0;
    CTrialPace m_Trials;
};

}  // namespace talvo
