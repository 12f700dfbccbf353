// The attempts of a transfer that fails.
#pragma once

#include <algorithm>

#include "tools/failure.h"

namespace tool {

// The waits before further attempts: 1, 2, 4 and so on to 60 seconds.
class Backoff {
public:
    explicit Backoff(DWORD aRetries) : m_dwLeft(aRetries) {}

    DWORD GetLeft() const { return m_dwLeft; }

    // aSeconds (out): the time to wait. false: no attempt is left.
    bool Next(long& aSeconds) {
        if (m_dwLeft == 0)
            return false;
        --m_dwLeft;
        aSeconds = m_lNext;
        m_lNext = std::min(2 * m_lNext, LONGEST);
        return true;
    }

    // A transfer that moved bytes starts over with short waits.
    void OnProgress() { m_lNext = 1; }

private:
    static constexpr long LONGEST = 60;

    DWORD m_dwLeft;
    long m_lNext = 1;
};

// TRUE: the same attempt may succeed later.
inline bool IsTemporary(ECause aCause) {
    return aCause == CAUSE_NAME || aCause == CAUSE_CONNECT || aCause == CAUSE_TIMEOUT || aCause == CAUSE_BROKEN;
}

}  // namespace tool
