#include "talvo/event/timer_queue_ordered_list.h"
#include "tests/support/event_helpers.h"

namespace {

CCmTimeValue Msec(int64_t aMsec) { return CCmTimeValue::FromUsec(aMsec * 1000); }

// The promise written down naively: a list searched from end to end. Times in milliseconds.
class CNaiveTimers {
public:
    struct CEntry {
        size_t m_stId;
        int64_t m_llExpires;
        int64_t m_llInterval;
        unsigned long m_ulCount;  // 0: without end
        int m_nPass;              // the pass in which it was scheduled with nothing to wait, -1: none
    };

    CmResult Schedule(size_t aId, int64_t aNow, int64_t aInterval, unsigned long aCount) {
        const CmResult rv = Cancel(aId) == CM_OK ? CM_ERROR_FOUND : CM_OK;
        m_Entries.push_back({aId, aNow + aInterval, aInterval, aCount, m_bInPass && aInterval == 0 ? m_nPass : -1});
        return rv;
    }
    CmResult Cancel(size_t aId) {
        return std::erase_if(m_Entries, [=](const CEntry& a) { return a.m_stId == aId; }) ? CM_OK : CM_ERROR_NOT_FOUND;
    }
    void BeginPass() { m_bInPass = ++m_nPass > 0; }
    void EndPass() { m_bInPass = false; }
    // The one that fires next in this pass, put back if it goes on; -1: the pass is over.
    int FireNext(int64_t aNow) {
        const auto itFirst = Earliest();
        if (itFirst == m_Entries.end() || itFirst->m_llExpires > aNow || itFirst->m_nPass == m_nPass)
            return -1;
        CEntry entry = *itFirst;
        m_Entries.erase(itFirst);
        if (entry.m_ulCount != 1) {
            entry.m_ulCount -= entry.m_ulCount > 0;
            while (entry.m_llExpires <= aNow)
                entry.m_llExpires += entry.m_llInterval;
            m_Entries.push_back(entry);
        }
        return static_cast<int>(entry.m_stId);
    }
    int64_t Remain(int64_t aNow) {
        const auto itFirst = Earliest();
        return itFirst == m_Entries.end() ? -1 : std::max<int64_t>(itFirst->m_llExpires - aNow, 0);
    }

private:
    // The list is in the order of pushing: of equal ones the last is taken. Timers of the next pass come behind.
    std::vector<CEntry>::iterator Earliest() {
        auto itBest = m_Entries.end();
        for (auto it = m_Entries.begin(); it != m_Entries.end(); ++it) {
            if (itBest == m_Entries.end() || Key(*it) <= Key(*itBest))
                itBest = it;
        }
        return itBest;
    }
    std::pair<bool, int64_t> Key(const CEntry& a) const { return {m_bInPass && a.m_nPass == m_nPass, a.m_llExpires}; }

    std::vector<CEntry> m_Entries;
    int m_nPass = 0;
    bool m_bInPass = false;
};

// Both sides take the same random steps, from outside and from inside callbacks; each firing is asked of the naive side first.
class CTimerWalk {
public:
    explicit CTimerWalk(unsigned aSeed) : m_Random(aSeed) {
        for (size_t i = 0; i < 40; ++i) {
            m_Timers.push_back(std::make_unique<CTestTimer>([this, i] { OnFired(i); }));
            if (i % 2 == 0)
                m_Elsewhere.ScheduleTimer(m_Timers[i].get(), nullptr, CCmTimeValue(1000000), 1);
        }
    }
    ~CTimerWalk() {
        for (size_t i = 0; i < 40; ++i)
            EXPECT_EQ(i % 2 == 0 ? CM_OK : CM_ERROR_NOT_FOUND, m_Elsewhere.CancelTimer(m_Timers[i].get()));
    }

    void Step() {
        for (int i = Pick(4); i > 0; --i)
            ChangeOne(static_cast<size_t>(Pick(40)));
        const int64_t llBy = Pick(3) == 0 ? 0 : Pick(12);
        m_llNow += llBy;
        m_Clock.Advance(Msec(llBy));
        m_Naive.BeginPass();
        m_nFired = 0;
        CCmTimeValue tvRemain;
        EXPECT_EQ(m_Queue.CheckExpire(&tvRemain), m_nFired);
        EXPECT_EQ(-1, m_Naive.FireNext(m_llNow));
        m_Naive.EndPass();
        const int64_t llRemain = m_Naive.Remain(m_llNow);
        EXPECT_EQ(llRemain == -1 ? CCmTimeValue::s_tvMax : Msec(llRemain), tvRemain);
    }

private:
    int Pick(int aBelow) { return static_cast<int>(m_Random() % static_cast<unsigned>(aBelow)); }

    void OnFired(size_t aId) {
        ++m_nFired;
        ASSERT_EQ(static_cast<int>(aId), m_Naive.FireNext(m_llNow));
        if (Pick(2) == 0)
            ChangeOne(Pick(2) == 0 ? aId : static_cast<size_t>(Pick(40)));
    }
    void ChangeOne(size_t aId) {
        if (Pick(4) == 0) {
            EXPECT_EQ(m_Naive.Cancel(aId), m_Queue.CancelTimer(m_Timers[aId].get()));
            return;
        }
        const int64_t llInterval = Pick(9);
        const unsigned long ulCount = llInterval == 0 ? 1 : static_cast<unsigned long>(Pick(4));
        EXPECT_EQ(m_Naive.Schedule(aId, m_llNow, llInterval, ulCount),
                  m_Queue.ScheduleTimer(m_Timers[aId].get(), nullptr, Msec(llInterval), ulCount));
    }

    std::mt19937 m_Random;
    CCmFakeClock m_Clock;
    CCmTimerQueueOrderedList m_Queue;
    CCmTimerQueueOrderedList m_Elsewhere;  // has timers of every other handler, too
    CNaiveTimers m_Naive;
    std::vector<std::unique_ptr<CTestTimer>> m_Timers;
    int64_t m_llNow = 0;
    int m_nFired = 0;
};

}  // namespace

TEST(TimerQueueWalkTest, FiresInTheOrderOfASortedList) {
    for (unsigned uSeed = 1; uSeed <= 10 && !testing::Test::HasFailure(); ++uSeed) {
        CTimerWalk walk(uSeed);
        for (int i = 0; i < 2000 && !testing::Test::HasFailure(); ++i)
            walk.Step();
        EXPECT_FALSE(testing::Test::HasFailure()) << "seed " << uSeed;
    }
}

TEST(TimerQueueTest, AFarYearIsNeitherAnEmptyQueueNorAnOverflow) {
    CCmFakeClock clock;
    CCmTimerQueueOrderedList queue;
    CTestTimer timer;
    CCmTimeValue tvRemain;
    EXPECT_EQ(CM_OK, queue.ScheduleTimer(&timer, nullptr, CCmTimeValue::s_tvMax, 0));
    EXPECT_EQ(0, queue.CheckExpire(&tvRemain));
    EXPECT_GT(tvRemain, CCmTimeValue::s_tvZero);
    queue.CancelTimer(&timer);
    clock.Advance(CCmTimeValue::s_tvMax);
    int64_t llEarliest = 0;
    EXPECT_FALSE(queue.GetEarliestUsec(llEarliest));
    queue.ScheduleTimer(&timer, nullptr, Msec(5), 1);
    EXPECT_TRUE(queue.GetEarliestUsec(llEarliest));
    EXPECT_EQ(5000, llEarliest - CCmClock::GetTimeOfDayUsec());
}

// A handler that is destroyed too early must not be written to when its queue ends.
TEST(TimerQueueTest, TheEndRunsDeletionsAndTouchesNoOtherHandler) {
    struct CDeletion : CCmTimerDelete {
        void OnTimeout(const CCmTimeValue&, void*) override { m_Run(); }
        std::function<void()> m_Run;
    } deletion;
    alignas(CTestTimer) std::array<char, sizeof(CTestTimer)> memory{};
    std::array<char, sizeof(CTestTimer)> before{};
    CTestTimer other;
    int nDeleted = 0;
    {
        CCmTimerQueueOrderedList queue;
        deletion.m_Run = [&] {
            ++nDeleted;
            EXPECT_EQ(CM_OK, queue.ScheduleTimer(&other, nullptr, Msec(1), 1));
            EXPECT_EQ(CM_ERROR_FOUND, queue.ScheduleTimer(&other, nullptr, Msec(2), 1));
        };
        auto* pTooShort = new (memory.data()) CTestTimer;
        queue.ScheduleTimer(pTooShort, nullptr, Msec(0), 1);
        queue.ScheduleTimer(&deletion, CCmTimerQueueBase::GetDeletionArg(), Msec(0), 1);
        pTooShort->~CTestTimer();
        before = memory;
    }
    EXPECT_EQ(1, nDeleted);
    EXPECT_EQ(0, other.m_nFired);
    EXPECT_EQ(before, memory);
}
