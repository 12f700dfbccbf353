// Counts of values in buckets whose width grows with the value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tool {

// 128 buckets for each power of two: a value is known to 1/128 of itself, over the whole range, in 60 KB of memory.
class Histogram {
public:
    struct Bucket {
        uint64_t m_ullMost;  // the largest value of the bucket
        uint64_t m_ullCount;
    };

    Histogram();

    void Record(uint64_t aValue);

    uint64_t GetCount() const { return m_ullCount; }
    // These are 0 without values.
    uint64_t GetMin() const { return m_ullCount ? m_ullMin : 0; }
    uint64_t GetMax() const { return m_ullMax; }
    double GetMean() const;
    // The smallest bucket's value that at least aPercent of all values do not exceed; at most GetMax.
    uint64_t GetPercentile(double aPercent) const;
    // Those that are not empty, in rising order.
    std::vector<Bucket> GetBuckets() const;

private:
    static size_t GetIndex(uint64_t aValue);
    static uint64_t GetMost(size_t aIndex);

    std::vector<uint64_t> m_vecCounts;
    uint64_t m_ullCount = 0;
    uint64_t m_ullMin = UINT64_MAX;
    uint64_t m_ullMax = 0;
    double m_dSum = 0;
};

}  // namespace tool
