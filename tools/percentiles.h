// Statistics of a series of measured times.
#pragma once

#include <vector>

#include "talvo/talvo.h"

namespace tool {

struct Percentiles {
    DWORD m_dwMin = 0, m_dwP50 = 0, m_dwP90 = 0, m_dwP99 = 0, m_dwMax = 0;
};

// By nearest rank: pN is the smallest sample that at least N percent of all samples do not exceed. All are 0 without samples.
Percentiles ComputePercentiles(std::vector<DWORD> aSamples);

}  // namespace tool
