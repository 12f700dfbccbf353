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

// Counts over all files under way. Reads the time from the library's clock.
class ProgressMeter {
public:
    void Begin(uint64_t aSize);                 // a file of aSize bytes begins; 0 also if the size is unknown
    void Advance(uint64_t aBytes);              // aBytes more were transferred
    void End(uint64_t aSize, uint64_t aMoved);  // that file has ended, complete or not

    bool IsIdle() const { return m_nFiles == 0; }

    // The current progress. The rate is measured between the calls of the last few seconds, so call it regularly.
    ProgressSample Sample();

private:
    struct Point {
        int64_t m_llUsec;
        uint64_t m_ullMoved;
    };

    void Forget(int64_t aNow);

    int m_nFiles = 0;
    uint64_t m_ullTotal = 0;
    uint64_t m_ullDone = 0;
    uint64_t m_ullMoved = 0;  // never decreases, unlike m_ullDone
    std::deque<Point> m_Points;
};

// "12.3 MB of 20.0 MB (61%), 80.1 MB/s, 0:02 left".
std::string FormatProgress(const ProgressSample& aSample);

}  // namespace tool
