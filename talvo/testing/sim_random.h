// The random numbers of a simulation.
#pragma once

#include <cstdint>

#include "talvo/base/types.h"

namespace talvo {

// Numbers that depend only on the seed, on every machine: a counter, well mixed (SplitMix64).
class CSimRandom {
public:
    explicit CSimRandom(uint64_t aSeed) : m_ullState(aSeed) {}

    // 0 to aBound - 1; 0 for a bound of 0.
    uint64_t Below(uint64_t aBound) { return aBound == 0 ? 0 : Next_i() % aBound; }
    // 0 to aBound.
    int64_t UpTo(int64_t aBound) { return static_cast<int64_t>(Below(static_cast<uint64_t>(aBound) + 1)); }
    // Draws no number if the outcome is certain.
    BOOL Chance(double aShare) { return aShare > 0 && (aShare >= 1 || static_cast<double>(Next_i() >> 11) * 0x1p-53 < aShare); }

private:
    uint64_t Next_i() {
        m_ullState += 0x9E3779B97F4A7C15;
        uint64_t ullMixed = (m_ullState ^ (m_ullState >> 30)) * 0xBF58476D1CE4E5B9;
        ullMixed = (ullMixed ^ (ullMixed >> 27)) * 0x94D049BB133111EB;
        return ullMixed ^ (ullMixed >> 31);
    }

    uint64_t m_ullState;
};

}  // namespace talvo
