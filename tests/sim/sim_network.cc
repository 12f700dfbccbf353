#include "tests/sim/sim_network.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <limits>
#include <utility>

namespace {

constexpr int64_t TICKS_WRAP = (int64_t{1} << 32) * SIM_MSEC;
constexpr int64_t NEVER = std::numeric_limits<int64_t>::max();

}  // namespace

// Every simulation begins some minutes before the tick counter wraps.
CSimNetwork::CSimNetwork(uint64_t aSeed, BOOL aVerbose)
    : m_ullChance(aSeed),
      m_llStart(TICKS_WRAP - 300 * SIM_SEC + RandomTime(300 * SIM_SEC)),
      m_llNow(m_llStart),
      m_bVerbose(aVerbose),
      m_pThread(new CSimThread) {
    CCmClock::Replace(this);
    if (m_pThread->Create(CCmThreadManager::TT_MAIN) != CM_OK)
        Fail("there is a main thread already");
}

CSimNetwork::~CSimNetwork() {
    m_pThread->Destory(CM_OK);
    CCmClock::Replace(nullptr);
}

uint64_t CSimNetwork::Random(uint64_t aBound) {
    m_ullChance += 0x9E3779B97F4A7C15;
    uint64_t ullMixed = (m_ullChance ^ (m_ullChance >> 30)) * 0xBF58476D1CE4E5B9;
    ullMixed = (ullMixed ^ (ullMixed >> 27)) * 0x94D049BB133111EB;
    return (ullMixed ^ (ullMixed >> 31)) % aBound;
}

void CSimNetwork::After(int64_t aDelay, std::function<void()> aRun) {
    m_Events.push({m_llNow + aDelay, m_ullEvents++, std::move(aRun)});
}

void CSimNetwork::SetWeather(const CSimWeather& aWeather) {
    m_Weather = aWeather;
    if (!m_Weather.m_bSilent) {
        for (auto& run : std::exchange(m_Held, {}))
            After(0, std::move(run));
    }
}

void CSimNetwork::Arrive(std::function<void()> aRun) {
    if (m_Weather.m_bSilent)
        m_Held.push_back(std::move(aRun));
    else
        aRun();
}

// When the first timer is due, on the clock of the events.
int64_t CSimNetwork::NextTimer_i() {
    const CCmTimeValue tvEarliest = m_pThread->m_Timers.GetEarliestTime();
    if (tvEarliest == CCmTimeValue::s_tvMax)
        return NEVER;
    return std::max(tvEarliest.GetTotalInUsec() - CCmClock::GetTimeOfDayUsec() + m_llNow, m_llNow);
}

void CSimNetwork::RunFor(int64_t aTime) {
    const int64_t llEnd = m_llNow + aTime;
    for (;;) {
        const int64_t llTimer = NextTimer_i();
        const int64_t llEvent = m_Events.empty() ? NEVER : std::max(m_Events.top().m_llAt, m_llNow);
        if (std::min(llTimer, llEvent) > std::max(llEnd, m_llNow))
            break;
        m_llNow = std::min(llTimer, llEvent);
        if (llTimer <= llEvent) {
            m_pThread->m_Timers.CheckExpire(nullptr);
        } else {
            const auto run = std::move(const_cast<CEvent&>(m_Events.top()).m_Run);  // popped next
            m_Events.pop();
            run();
        }
        if (m_Settled)
            m_Settled();
    }
    m_llNow = std::max(m_llNow, llEnd);
}

void CSimNetwork::Note(const char* aWhat, uint64_t aNumber, uint64_t aMore) {
    const auto add = [this](uint64_t aValue) { m_ullDigest = (m_ullDigest ^ aValue) * 0x100000001B3; };
    for (const char* p = aWhat; *p; ++p)
        add(static_cast<unsigned char>(*p));
    add(static_cast<uint64_t>(Now()));
    add(aNumber);
    add(aMore);
    if (m_bVerbose)
        std::printf("%14.6f %s %" PRIu64 " %" PRIu64 "\n", static_cast<double>(Now()) / SIM_SEC, aWhat, aNumber, aMore);
}
