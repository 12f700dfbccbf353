#include "benchmarks/support/histogram.h"

#include <algorithm>
#include <bit>

namespace bench {
namespace {

// Every power of two is divided into 64 equal steps; below 64 ns each nanosecond has its own.
constexpr int STEP_BITS = 6;
constexpr uint64_t STEPS = 1u << STEP_BITS;

size_t BucketOf(uint64_t aNs) {
    const int nShift = std::max(0, static_cast<int>(std::bit_width(aNs)) - STEP_BITS - 1);
    return (static_cast<size_t>(nShift) << STEP_BITS) + (aNs >> nShift);
}

uint64_t UpperBoundOf(size_t aBucket) {
    if (aBucket < 2 * STEPS)
        return aBucket;
    const size_t nShift = (aBucket >> STEP_BITS) - 1;
    return (((aBucket & (STEPS - 1)) + STEPS + 1) << nShift) - 1;
}

}  // namespace

CHistogram::CHistogram() : m_Buckets(BucketOf(UINT64_MAX) + 1) {}

void CHistogram::Record(int64_t aNs) {
    ++m_Buckets[BucketOf(static_cast<uint64_t>(std::max<int64_t>(aNs, 0)))];
    ++m_ullCount;
}

void CHistogram::Reset() {
    std::fill(m_Buckets.begin(), m_Buckets.end(), 0);
    m_ullCount = 0;
}

double CHistogram::PercentileUs(double aShare) const {
    const double dWanted = aShare * static_cast<double>(m_ullCount);
    uint64_t ullSeen = 0;
    for (size_t n = 0; n < m_Buckets.size() && m_ullCount > 0; ++n) {
        ullSeen += m_Buckets[n];
        if (static_cast<double>(ullSeen) >= dWanted)
            return static_cast<double>(UpperBoundOf(n)) / 1000;
    }
    return 0;
}

}  // namespace bench
