// Work for another thread: the cost of a post one way, and the time of a round trip.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>

#include "benchmarks/support/histogram.h"
#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"

namespace bench {

constexpr uint64_t ONE_WAY = 1000000;
constexpr int WARM_UP_TRIPS = 2000;
constexpr int ROUND_TRIPS = 50000;

// Checks the posts of one stream in the other thread: each must run once and in order.
struct CPostsSeen {
    void Take(uint64_t aNumber) {
        if (aNumber != m_ullRan) {
            std::fprintf(stderr, "post %llu ran as number %llu\n", static_cast<unsigned long long>(aNumber),
                         static_cast<unsigned long long>(m_ullRan));
            std::exit(1);
        }
        if (++m_ullRan == ONE_WAY)
            m_Done.set_value();
    }

    uint64_t m_ullRan = 0;  // the loop's thread's
    std::promise<void> m_Done;
};

// A post of SIZE bytes.
template <size_t SIZE>
struct CPost {
    void operator()() const { m_pSeen->Take(m_Words[0]); }

    CPostsSeen* m_pSeen;
    std::array<uint64_t, SIZE / sizeof(uint64_t) - 1> m_Words;  // the number, and the rest of the post
};

// Nanoseconds of one post from this thread to aLoop's, from the first post to the end of the last.
template <size_t SIZE, class Loop>
double OneWayNs(Loop& aLoop) {
    static_assert(sizeof(CPost<SIZE>) == SIZE);
    CPostsSeen seen;
    CPost<SIZE> post{&seen, {}};
    const int64_t llStart = NowNs();
    for (uint64_t n = 0; n < ONE_WAY; ++n) {
        post.m_Words[0] = n;
        aLoop.Post(post);
    }
    seen.m_Done.get_future().wait();
    return static_cast<double>(NowNs() - llStart) / static_cast<double>(ONE_WAY);
}

// A task that goes to and fro between two loops. Only one thread at a time uses it.
template <class Loop>
class CPingPong {
public:
    CPingPong(Loop& aNear, Loop& aFar) : m_Near(aNear), m_Far(aFar) {}

    const CHistogram& Run() {
        m_Near.Post([this] { Ping(); });
        m_Done.get_future().wait();
        return m_Times;
    }

private:
    void Ping() {
        m_llStart = NowNs();
        m_Far.Post([this] { m_Near.Post([this] { Pong(); }); });
    }
    void Pong() {
        if (++m_Count > WARM_UP_TRIPS)
            m_Times.Record(NowNs() - m_llStart);
        if (m_Count == WARM_UP_TRIPS + ROUND_TRIPS)
            m_Done.set_value();
        else
            Ping();
    }

    Loop& m_Near;
    Loop& m_Far;
    int m_Count = 0;
    int64_t m_llStart = 0;
    CHistogram m_Times;
    std::promise<void> m_Done;
};

// Loop is a thread that runs posted functions. Its constructor takes the number of its core; any thread may call
// Post(Function); its destructor ends it.
template <class Loop>
int RunThreads() {
    PinThisThread(1);
    Loop far(0);
    for (const int nCore : {1, 0}) {
        Loop near(nCore);
        PrintCost(nCore == 1 ? "rt_cross" : "rt_same", CPingPong<Loop>(near, far).Run());
    }
    OneWayNs<16>(far);  // warm-up
    PrintCost("post16", OneWayNs<16>(far));
    PrintCost("post64", OneWayNs<64>(far));
    return 0;
}

}  // namespace bench
