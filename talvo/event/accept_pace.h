// Decides when to count the connections that wait in a listening handle.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>

namespace talvo {

// The count is a system call. It saves the wait of each further connection, so it pays only while connections come in bursts.
// After each count that found none, twice as many turns pass before the next one, up to 15.
class CAcceptPace {
public:
    // A connection was accepted in turn aTurn. True: count now, and report the result to OnCount.
    bool IsWorthCounting(uint64_t aTurn) {
        const uint64_t ullBefore = std::exchange(m_ullTurn, aTurn);
        if (aTurn - ullBefore > 1)
            return false;  // the turn before had no connection
        if (m_nSkips == 0)
            return true;
        --m_nSkips;
        return false;
    }

    // aAny: some wait.
    void OnCount(bool aAny) {
        m_nPause = aAny ? 0 : std::min(m_nPause * 2 + 1, MAX_PAUSE);
        m_nSkips = m_nPause;
    }

private:
    static constexpr int MAX_PAUSE = 15;

    uint64_t m_ullTurn = 0;
    int m_nPause = 0;
    int m_nSkips = 0;
};

}  // namespace talvo
