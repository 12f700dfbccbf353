// Decides when to try a thing that only sometimes pays.
#pragma once

#include <algorithm>

namespace talvo {

// After each trial in vain, twice as many chances pass before the next one, up to 15.
class CTrialPace {
public:
    // There is a chance. True: try now, and report the result to OnResult.
    bool IsDue() {
        if (m_nSkips == 0)
            return true;
        --m_nSkips;
        return false;
    }

    void OnResult(bool aPaid) {
        m_nPause = aPaid ? 0 : std::min(m_nPause * 2 + 1, MAX_PAUSE);
        m_nSkips = m_nPause;
    }

private:
    static constexpr int MAX_PAUSE = 15;

    int m_nPause = 0;
    int m_nSkips = 0;
};

}  // namespace talvo
