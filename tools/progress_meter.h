// The progress and the speed of a transfer.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

namespace tool {

struct ProgressSample {
    uint64_t m_ullDone = 0;        // bytes
    uint64_t m_ullTotal = 0;       // bytes; 0: unknown
    uint64_t m_ullRate = 0;        // bytes a second over the last seconds, 0 while unknown
    int64_t m_llSecondsLeft = -1;  // -1: unknown
};

// Counts over all transfers under way, each of one or more files. Files that are complete keep their share until the last
// transfer has ended, so that the count does not run backwards. Reads the time from the library's clock.
class ProgressMeter {
public:
    void Begin();  // a transfer begins; the first one begins a new count
    void End();
    bool IsIdle() const { return m_nTransfers == 0; }

    void Expect(uint64_t aBytes) { m_ullTotal += aBytes; }  // more are to come; not for a file of unknown size
    void Waive(uint64_t aBytes) { m_ullTotal -= aBytes; }   // some of them will not come, perhaps before they are expected
    void Advance(uint64_t aBytes) { m_ullDone += aBytes; }  // aBytes more were transferred
    // The total is unknown between these two: files are to come that are not expected yet.
    void BeginSearch() { ++m_nSearches; }
    void EndSearch() { --m_nSearches; }

    // The current progress. The rate is measured between the calls of the last few seconds, so call it regularly.
    ProgressSample Sample();

private:
    struct Point {
        int64_t m_llUsec;
        uint64_t m_ullDone;
    };

    void Forget(int64_t aNow);

    int m_nTransfers = 0;
    int m_nSearches = 0;
    uint64_t m_ullTotal = 0;
    uint64_t m_ullDone = 0;
    std::deque<Point> m_Points;
};

// "12.3 MB of 20.0 MB (61%), 80.1 MB/s, 0:02 left".
std::string FormatProgress(const ProgressSample& aSample);

}  // namespace tool
