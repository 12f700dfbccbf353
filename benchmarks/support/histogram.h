// Latencies, counted in buckets of at most 1.6% width: a record takes no memory.
#pragma once

#include <cstdint>
#include <vector>

namespace bench {

class CHistogram {
public:
    CHistogram();

    void Record(int64_t aNs);
    void Reset();

    // The latency in microseconds that the given share (0 to 1) of all recorded ones does not exceed; 0 without records.
    double PercentileUs(double aShare) const;

private:
    std::vector<uint64_t> m_Buckets;
    uint64_t m_ullCount = 0;
};

}  // namespace bench
