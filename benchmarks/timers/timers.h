// Thousands of timers: the cost of scheduling, touching (re-arming), cancelling and firing one among many, and of firing a
// periodic one, which includes re-arming it.
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

// Timers is the library under test, with aCount idle timers:
//   Schedule(index, ms)   starts one, or re-arms a running one
//   Cancel(index)
//   Settle()              finishes deferred work of the two before
//   Repeat(index, ms)     starts a periodic one, which Cancel ends
//   Fire()                fires the due ones, returns the number of all firings so far
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
        m_llTouch += ForEach([this](size_t n) { m_Timers.Schedule(n, m_Delays[n] + 1); });
        m_llCancel += ForEach([this](size_t n) { m_Timers.Cancel(n); });
        ForEach([this](size_t n) { m_Timers.Schedule(n, SAME_MS); });
        m_llCancelSame += ForEach([this](size_t n) { m_Timers.Cancel(n); });
        ++m_nRounds;
    }

    // Measures only the firing: none is due before the last is scheduled, and all are due after the sleep.
    void FireRound() {
        ForEach([this](size_t n) { m_Timers.Schedule(n, SHORTEST_MS + m_Delays[n] % RANGE_MS); });
        m_llFire += FireAll();
        ++m_nFireRounds;
    }

    // The sleep is longer than any period and shorter than two: each timer fires once after each sleep.
    void PeriodicRounds() {
        ForEach([this](size_t n) { m_Timers.Repeat(n, SHORTEST_MS + m_Delays[n] % RANGE_MS); });
        for (; m_nPeriods < PERIODS; ++m_nPeriods)
            m_llPeriodic += FireAll();
        ForEach([this](size_t n) { m_Timers.Cancel(n); });
    }

    void Print() const {
        const std::string strCount = "/" + std::to_string(m_Order.size());
        PrintCost("schedule" + strCount, PerTimer(m_llSchedule, m_nRounds));
        PrintCost("touch" + strCount, PerTimer(m_llTouch, m_nRounds));
        PrintCost("cancel" + strCount, PerTimer(m_llCancel, m_nRounds));
        PrintCost("cancel at one time" + strCount, PerTimer(m_llCancelSame, m_nRounds));
        PrintCost("fire" + strCount, PerTimer(m_llFire, m_nFireRounds));
        PrintCost("periodic" + strCount, PerTimer(m_llPeriodic, m_nPeriods));
    }

private:
    static constexpr int SAME_MS = 500000;  // of timers that share one slot of a wheel
    static constexpr int SHORTEST_MS = 200;
    static constexpr int RANGE_MS = 20;
    static constexpr size_t PERIODS = 3;

    // Waits until all are due, fires them and returns the nanoseconds of the firing.
    int64_t FireAll() {
        std::this_thread::sleep_for(std::chrono::milliseconds(SHORTEST_MS + RANGE_MS + 5));
        const int64_t llStart = NowNs();
        const size_t nFired = m_Timers.Fire();
        const int64_t llTook = NowNs() - llStart;
        m_nExpected += m_Order.size();
        if (nFired != m_nExpected) {
            std::fprintf(stderr, "%zu timers have fired instead of %zu\n", nFired, m_nExpected);
            std::exit(1);
        }
        return llTook;
    }

    // In a different random order each time.
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
    std::vector<int> m_Delays;  // milliseconds, as widely spread as a server's time-outs
    size_t m_nRounds = 0;
    size_t m_nFireRounds = 0;
    size_t m_nPeriods = 0;
    size_t m_nExpected = 0;  // all firings so far
    int64_t m_llSchedule = 0;
    int64_t m_llTouch = 0;
    int64_t m_llCancel = 0;
    int64_t m_llCancelSame = 0;
    int64_t m_llFire = 0;
    int64_t m_llPeriodic = 0;
};

// The program's only argument is the number of timers; without one it runs with each of three numbers.
template <class Timers>
int RunTimers(int aArgc, char** aArgv) {
    const size_t stOnly = aArgc > 1 ? std::strtoul(aArgv[1], nullptr, 10) : 0;
    PinThisThread(0);
    for (const size_t nCount : {1000, 10000, 100000}) {
        if (stOnly != 0 && nCount != stOnly)
            continue;
        CTimersRun<Timers> run(nCount);
        for (size_t n = 0; n < 300000 / nCount; ++n)
            run.Round();
        for (size_t n = 0; n < std::clamp<size_t>(100000 / nCount, 1, 4); ++n)
            run.FireRound();
        run.PeriodicRounds();
        run.Print();
    }
    return 0;
}

}  // namespace bench
