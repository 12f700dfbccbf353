// Timers by the thousand: what it costs to schedule, re-arm, cancel and fire one among many.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"

namespace bench {

// Timers is the library under test, holding aCount idle timers:
//   Schedule(index, ms)   starts one; on one that runs: re-arms it
//   Cancel(index)
//   Settle()              finishes what the two before have put off
//   Fire()                fires what is due, returns how many timers have fired in all
template <class Timers>
class CTimersRun {
public:
    explicit CTimersRun(size_t aCount) : m_Timers(aCount), m_Order(aCount), m_Delays(aCount) {
        for (size_t n = 0; n < aCount; ++n) {
            m_Order[n] = n;
            m_Delays[n] = std::uniform_int_distribution<int>(1000, 1000000)(m_Random);
        }
    }

    void Round() {
        m_llSchedule += ForEach([this](size_t n) { m_Timers.Schedule(n, m_Delays[n]); });
        m_llRearm += ForEach([this](size_t n) { m_Timers.Schedule(n, m_Delays[n] + 1); });
        m_llCancel += ForEach([this](size_t n) { m_Timers.Cancel(n); });
        ++m_nRounds;
    }

    // Only the firing is measured: none is due before the last is scheduled, all are when the sleep is over.
    void FireRound() {
        constexpr int SHORTEST_MS = 200;
        constexpr int RANGE_MS = 20;
        ForEach([this](size_t n) { m_Timers.Schedule(n, SHORTEST_MS + m_Delays[n] % RANGE_MS); });
        std::this_thread::sleep_for(std::chrono::milliseconds(SHORTEST_MS + RANGE_MS + 5));
        const int64_t llStart = NowNs();
        const size_t nFired = m_Timers.Fire();
        m_llFire += NowNs() - llStart;
        if (nFired != ++m_nFireRounds * m_Order.size()) {
            std::fprintf(stderr, "%zu timers have fired of %zu\n", nFired, m_nFireRounds * m_Order.size());
            std::exit(1);
        }
    }

    void AddTo(CReport& aReport) const {
        const std::string strCount = std::to_string(m_Order.size());
        aReport.Add("schedule_" + strCount, PerTimer(m_llSchedule, m_nRounds));
        aReport.Add("rearm_" + strCount, PerTimer(m_llRearm, m_nRounds));
        aReport.Add("cancel_" + strCount, PerTimer(m_llCancel, m_nRounds));
        aReport.Add("fire_" + strCount, PerTimer(m_llFire, m_nFireRounds));
    }

private:
    // In another random order each time.
    template <class Function>
    int64_t ForEach(Function aFunction) {
        std::shuffle(m_Order.begin(), m_Order.end(), m_Random);
        const int64_t llStart = NowNs();
        for (const size_t n : m_Order)
            aFunction(n);
        m_Timers.Settle();
        return NowNs() - llStart;
    }

    double PerTimer(int64_t aNs, size_t aRounds) const {
        return static_cast<double>(aNs) / static_cast<double>(aRounds * m_Order.size());
    }

    Timers m_Timers;
    std::mt19937 m_Random{1};
    std::vector<size_t> m_Order;
    std::vector<int> m_Delays;  // milliseconds, as far apart as a server's time-outs
    size_t m_nRounds = 0;
    size_t m_nFireRounds = 0;
    int64_t m_llSchedule = 0;
    int64_t m_llRearm = 0;
    int64_t m_llCancel = 0;
    int64_t m_llFire = 0;
};

template <class Timers>
int RunTimers() {
    PinThisThread(0);
    CReport report;
    for (const size_t nCount : {1000, 10000, 100000}) {
        CTimersRun<Timers> run(nCount);
        for (size_t n = 0; n < 300000 / nCount; ++n)
            run.Round();
        for (size_t n = 0; n < std::clamp<size_t>(100000 / nCount, 1, 4); ++n)
            run.FireRound();
        run.AddTo(report);
    }
    report.Print();
    return 0;
}

}  // namespace bench
