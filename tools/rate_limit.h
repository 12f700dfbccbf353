// The limit of a transfer's rate.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

// Counts bytes against the library's clock. It needs no timer: the caller waits.
class RateLimit {
public:
    explicit RateLimit(uint64_t aBytesPerSecond) : m_ullRate(aBytesPerSecond) {}  // 0: no limit

    // Counts aBytes that were moved. Returns the microseconds to wait before the next ones; 0: none.
    int64_t Count(uint64_t aBytes);

private:
    const uint64_t m_ullRate;
    int64_t m_llPaid = -1;  // the time at which the counted bytes are within the rate; -1: none are counted
};

// aRate (out): "500" bytes a second, "500k", "1.5M" or "2G", powers of 1,000. false: another text, or less than 1.
bool ParseRate(const std::string& aText, uint64_t& aRate);

}  // namespace tool
