// The faults that `talvo flaky` makes.
#pragma once

#include <random>
#include <string>
#include <vector>

#include "talvo/talvo.h"

namespace tool {

struct FlakyPlan {
    std::vector<std::string> m_vecFaults{"close", "reset", "stall"};  // each is as likely as the others
    DWORD m_dwSeed = 1;
    DWORD m_dwEveryMs = 2000;  // mean time between two faults
    DWORD m_dwBytes = 0;       // mean number of bytes between two faults of a connection; 0: by time
    DWORD m_dwStallMs = 3000;
    DWORD m_dwDelayMs = 0;  // each way
    DWORD m_dwCount = 0;    // of faults; 0: no limit
    bool m_bTogether = false;
};

// The choices for one connection: they follow from the seed and the connection's number.
class FlakyDice {
public:
    FlakyDice(const FlakyPlan& aPlan, DWORD aNumber) : m_Plan(aPlan) {
        std::seed_seq seed{aPlan.m_dwSeed, aNumber};
        m_Random.seed(seed);
    }
    // 1 to 2 * aMean, which a DWORD must hold.
    DWORD Around(DWORD aMean) { return 1 + static_cast<DWORD>(m_Random() % (2 * aMean)); }
    bool Flip() { return m_Random() % 2 == 0; }
    const std::string& ChooseFault() { return m_Plan.m_vecFaults[m_Random() % m_Plan.m_vecFaults.size()]; }

private:
    const FlakyPlan& m_Plan;
    std::mt19937 m_Random;
};

}  // namespace tool
