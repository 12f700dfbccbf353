// A simulated network as these scenarios see it: microseconds, percents, and one link for all.
#pragma once

#include <functional>
#include <string>

#include "talvo/testing/testing.h"

constexpr int64_t SIM_MSEC = 1000;
constexpr int64_t SIM_SEC = 1000 * SIM_MSEC;

class CSimLab {
public:
    explicit CSimLab(CCmSimNetwork& aNetwork) : m_Network(aNetwork) {}

    int64_t Now() const { return m_Network.Now().GetTotalInUsec(); }
    int64_t Tick() const { return Now() / SIM_MSEC; }
    void After(int64_t aDelay, std::function<void()> aRun) { m_Network.After(CCmTimeValue::FromUsec(aDelay), std::move(aRun)); }
    void RunFor(int64_t aTime) { m_Network.RunFor(CCmTimeValue::FromUsec(aTime)); }
    void JumpClock(int64_t aTime) {
        m_bJumped = TRUE;
        m_Network.Jump(CCmTimeValue::FromUsec(aTime));
    }
    // Whether the clock has jumped, so that nothing is known of when timers fire.
    BOOL HasJumped() const { return m_bJumped; }

    // The same for both directions, from now on.
    void SetPath(const CCmSimPath& aPath) {
        m_llLinkSet = Now();
        m_Network.SetLink({aPath, aPath});
    }
    const CCmSimPath& GetPath() const { return m_Network.GetLink().m_Up; }
    int64_t WhenLinkWasSet() const { return m_llLinkSet; }

    uint64_t Random(uint64_t aBound) { return m_Network.Random(aBound); }
    int64_t RandomTime(int64_t aBound) { return static_cast<int64_t>(Random(static_cast<uint64_t>(aBound))); }
    BOOL Chance(uint64_t aPercent) { return Random(100) < aPercent; }

    void Note(const char* aWhat, uint64_t aNumber, uint64_t aMore = 0) {
        m_Network.Note(std::string(aWhat) + ' ' + std::to_string(aNumber) + ' ' + std::to_string(aMore));
    }
    void Fail(const std::string& aText) { m_Network.Fail(aText); }

    CCmSimNetwork& m_Network;

private:
    BOOL m_bJumped = FALSE;
    int64_t m_llLinkSet = 0;
};
