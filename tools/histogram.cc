#include "tools/histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace tool {

namespace {

constexpr int BITS = 7;
constexpr size_t BUCKETS_PER_POWER = size_t{1} << BITS;

}  // namespace

Histogram::Histogram() : m_vecCounts(BUCKETS_PER_POWER * (65 - BITS)) {}

// The highest BITS + 1 bits of the value, and their place.
size_t Histogram::GetIndex(uint64_t aValue) {
    const int nShift = std::max(static_cast<int>(std::bit_width(aValue)) - (BITS + 1), 0);
    return static_cast<size_t>(nShift) * BUCKETS_PER_POWER + static_cast<size_t>(aValue >> nShift);
}

uint64_t Histogram::GetMost(size_t aIndex) {
    if (aIndex < 2 * BUCKETS_PER_POWER)
        return aIndex;
    const size_t stShift = aIndex / BUCKETS_PER_POWER - 1;
    const uint64_t ullHigh = aIndex - stShift * BUCKETS_PER_POWER;
    return ((ullHigh + 1) << stShift) - 1;
}

void Histogram::Record(uint64_t aValue) {
    ++m_vecCounts[GetIndex(aValue)];
    ++m_ullCount;
    m_ullMin = std::min(m_ullMin, aValue);
    m_ullMax = std::max(m_ullMax, aValue);
    m_dSum += static_cast<double>(aValue);
}

double Histogram::GetMean() const { return m_ullCount ? m_dSum / static_cast<double>(m_ullCount) : 0; }

uint64_t Histogram::GetPercentile(double aPercent) const {
    const auto ullRank = static_cast<uint64_t>(std::ceil(static_cast<double>(m_ullCount) * aPercent / 100));
    uint64_t ullSeen = 0;
    for (size_t i = 0; i < m_vecCounts.size(); ++i) {
        ullSeen += m_vecCounts[i];
        if (ullSeen > 0 && ullSeen >= ullRank)
            return std::min(GetMost(i), m_ullMax);
    }
    return 0;
}

std::vector<Histogram::Bucket> Histogram::GetBuckets() const {
    std::vector<Bucket> vecBuckets;
    for (size_t i = 0; i < m_vecCounts.size(); ++i) {
        if (m_vecCounts[i] > 0)
            vecBuckets.push_back({GetMost(i), m_vecCounts[i]});
    }
    return vecBuckets;
}

}  // namespace tool
