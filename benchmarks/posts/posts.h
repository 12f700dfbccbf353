// Posts to another thread: how many a second one way, and how many round trips between two threads.
#pragma once

#include <cstdint>
#include <future>

#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"

namespace bench {

constexpr int ONE_WAY = 1000000;
constexpr int ROUND_TRIPS = 50000;

inline double RateOf(int aCount, int64_t aStartNs) { return aCount * 1e9 / static_cast<double>(NowNs() - aStartNs); }

// From this thread to aLoop's: from the first post to the end of the last task.
template <class Loop>
double OneWayRate(Loop& aLoop) {
    struct {
        int m_Ran = 0;  // the loop's thread's
        std::promise<void> m_Done;
    } state;
    const int64_t llStart = NowNs();
    for (int n = 0; n < ONE_WAY; ++n) {
        aLoop.Post([&state] {
            if (++state.m_Ran == ONE_WAY)
                state.m_Done.set_value();
        });
    }
    state.m_Done.get_future().wait();
    return RateOf(ONE_WAY, llStart);
}

// A task that goes to and fro between two loops. At any time one thread only touches it.
template <class Loop>
class CPingPong {
public:
    CPingPong(Loop& aNear, Loop& aFar) : m_Near(aNear), m_Far(aFar) {}

    double Rate() {
        const int64_t llStart = NowNs();
        Ping();
        m_Done.get_future().wait();
        return RateOf(ROUND_TRIPS, llStart);
    }

private:
    void Ping() {
        m_Far.Post([this] { m_Near.Post([this] { Pong(); }); });
    }
    void Pong() {
        if (++m_Count == ROUND_TRIPS)
            m_Done.set_value();
        else
            Ping();
    }

    Loop& m_Near;
    Loop& m_Far;
    int m_Count = 0;
    std::promise<void> m_Done;
};

template <class Loop>
void RunPosts(Loop& aNear, Loop& aFar) {
    PinThisThread(1);
    OneWayRate(aFar);  // warm-up
    CReport report;
    report.Add("one_way", OneWayRate(aFar));
    report.Add("round_trip", CPingPong<Loop>(aNear, aFar).Rate());
    report.Print();
}

}  // namespace bench
