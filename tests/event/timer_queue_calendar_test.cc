#include "talvo/event/timer_queue_calendar.h"

#include <map>

#include "talvo/base/live_counter.h"
#include "talvo/event/event_queue_using_mutex.h"
#include "talvo/event/precise_timer_manager.h"
#include "talvo/testing/fake_clock.h"
#include "tests/support/event_helpers.h"

namespace {

constexpr DWORD TWO_HOURS = 7200000;

CCmTimeValue Msec(int64_t aMsec) { return CCmTimeValue::FromUsec(aMsec * 1000); }

int FiredIn(CScopedThread& aThread, const CTestTimer& aTimer) {
    int nFired = 0;
    aThread->GetLink().Call([&] {
        nFired = aTimer.m_nFired;
        return CM_OK;
    });
    return nFired;
}

void ExpectNoCalendar() {
    YieldUntil([] { return CCmLiveCounter::Dump().find("CCmPreciseTimerQueue") == CCmString::npos; });
}

class TimerQueueCalendarTest : public testing::Test {
protected:
    TimerQueueCalendarTest() { m_Events.Reset2CurrentThreadId(); }

    void RunEvents() {
        CCmEventQueueBase::EventsType events;
        m_Events.PopPendingEventsWithLock(events, 100, nullptr);
        m_Events.ProcessEvents(events);
    }

    CCmEventQueueUsingMutex m_Events;
};

}  // namespace

TEST_F(TimerQueueCalendarTest, FiresAtTheSlotThatCoversTheInterval) {
    CCmTimerQueueCalendar queue(10, TWO_HOURS, &m_Events);
    std::string strFired;
    CTestTimer a([&] { strFired += 'a'; });  // 0: at the next tick
    CTestTimer b([&] { strFired += 'b'; });  // 10 ms: one slot
    CTestTimer c([&] { strFired += 'c'; });  // 11 ms: two slots
    CTestTimer d([&] { strFired += 'd'; });  // every 20 ms
    EXPECT_EQ(CM_OK, queue.ScheduleTimer(&a, nullptr, Msec(0), 1));
    EXPECT_EQ(CM_OK, queue.ScheduleTimer(&b, nullptr, Msec(10), 1));
    EXPECT_EQ(CM_OK, queue.ScheduleTimer(&c, nullptr, Msec(500), 1));
    EXPECT_EQ(CM_ERROR_FOUND, queue.ScheduleTimer(&c, nullptr, Msec(11), 1));
    EXPECT_EQ(CM_OK, queue.ScheduleTimer(&d, nullptr, Msec(20), 3));
    EXPECT_EQ(2, queue.Tick());
    EXPECT_EQ("ba", strFired);  // of one slot the last pushed comes first
    for (int i = 0; i < 10; ++i)
        queue.Tick();
    EXPECT_EQ("badcdd", strFired);
}

TEST_F(TimerQueueCalendarTest, PostedTicksAreMadeUpForTogether) {
    CCmFakeClock clock;
    std::unique_ptr<CCmTimerQueueCalendar> pQueue(new CCmTimerQueueCalendar(10, 1000, &m_Events));
    CTestTimer timer([&] { clock.Advance(Msec(20)); });  // longer than its period
    CTestTimer tooLong;
    pQueue->ScheduleTimer(&timer, nullptr, Msec(10), 0);
    pQueue->ScheduleTimer(&tooLong, nullptr, Msec(5000), 2);
    clock.Advance(Msec(35));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(CM_OK, pQueue->PostTick());
    EXPECT_EQ(1u, m_Events.GetPendingEventsCount());
    m_Events.DestoryPendingEvents();  // their ticks run with the next ones
    pQueue->PostTick();
    RunEvents();
    EXPECT_EQ(1, timer.m_nFired);  // the missed periods are skipped
    for (DWORD dwTick = 0; dwTick < 194; ++dwTick)
        pQueue->PostTick();
    RunEvents();
    EXPECT_EQ(2, tooLong.m_nFired);  // after each turn of 99 ticks, however early
    EXPECT_EQ(CM_OK, pQueue->PostTick());
    pQueue.reset();
    RunEvents();  // the tick outlives the calendar
    m_Events.Stop();
    CCmTimerQueueCalendar late(10, TWO_HOURS, &m_Events);
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, late.PostTick());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, late.PostTick());
}

TEST_F(TimerQueueCalendarTest, ACallbackMayTurnTheWheelAndDeleteIt) {
    CCmFakeClock clock;
    std::unique_ptr<CCmTimerQueueCalendar> pQueue(new CCmTimerQueueCalendar(10, 1000, &m_Events));
    std::string strFired;
    const auto tick = [&] {
        pQueue->PostTick();
        RunEvents();
    };
    CTestTimer c([&] { strFired += 'c', pQueue.reset(); });
    CTestTimer b([&] { strFired += 'b'; });
    CTestTimer a([&] { strFired += 'a', tick(); });
    pQueue->ScheduleTimer(&c, nullptr, Msec(20), 1);
    pQueue->ScheduleTimer(&b, nullptr, Msec(10), 1);
    pQueue->ScheduleTimer(&a, nullptr, Msec(10), 1);
    clock.Advance(Msec(20));
    tick();
    EXPECT_EQ("abc", strFired);
}

// Against a list of due times: each posted tick fires exactly the timers that are due, however late the tick is.
TEST_F(TimerQueueCalendarTest, PostedTicksFireWhatIsDue) {
    struct CPending {
        int64_t m_llDue;
        int64_t m_llInterval;
        int m_nLeft;
    };
    CCmFakeClock clock;
    CCmTimerQueueCalendar queue(10, 1000, &m_Events);
    std::map<int, CPending> pending;
    std::vector<int> fired;
    std::vector<CTestTimer> timers(100);
    for (int i = 0; i < 100; ++i)
        timers[i].m_Run = [&fired, i] { fired.push_back(i); };
    int64_t llLast = CCmClock::GetTimeOfDayUsec();
    DWORD dwRandom = 1;
    const auto random = [&](DWORD aBelow) { return (dwRandom = dwRandom * 1664525 + 1013904223) / 65536 % aBelow; };
    for (int nStep = 0; nStep < 20000; ++nStep) {
        const int nTimer = static_cast<int>(random(100));
        const int64_t llInterval = 1 + random(60000) * (random(4) == 0 ? 15 : 1);
        const int nCount = static_cast<int>(1 + random(3));
        if (random(3) == 0) {
            EXPECT_EQ(pending.erase(nTimer) > 0 ? CM_OK : CM_ERROR_NOT_FOUND, queue.CancelTimer(&timers[nTimer]));
        } else {
            queue.ScheduleTimer(&timers[nTimer], nullptr, CCmTimeValue::FromUsec(llInterval), nCount);
            pending[nTimer] = {CCmClock::GetTimeOfDayUsec() + llInterval, llInterval, nCount};
        }
        clock.Advance(CCmTimeValue::FromUsec(random(3000)));
        if (random(4) != 0)
            continue;
        clock.Advance(Msec(10 * random(3)));
        const int64_t llNow = CCmClock::GetTimeOfDayUsec();
        for (int64_t llTick = llLast; llTick <= llNow; llTick += 10000)  // the wheel is not behind
            queue.PostTick();
        llLast = llNow;
        RunEvents();
        std::vector<int> expected;
        for (auto it = pending.begin(); it != pending.end();) {
            CPending& timer = it->second;
            const int64_t llLate = llNow - timer.m_llDue;
            if (llLate >= 0) {
                expected.push_back(it->first);
                timer.m_llDue += (llLate / timer.m_llInterval + 1) * timer.m_llInterval;
                --timer.m_nLeft;
            }
            it = timer.m_nLeft == 0 ? pending.erase(it) : std::next(it);
        }
        std::sort(fired.begin(), fired.end());
        ASSERT_EQ(expected, fired) << nStep;
        fired.clear();
    }
}

TEST(PreciseTimerManagerTest, ThreadsWithoutAReactorHaveTimers) {
    CCmFakeClock clock;
    CCmPreciseTimerManager& manager = *CCmPreciseTimerManager::Instance();
    EXPECT_EQ(nullptr, manager.GetTimerQueue());  // no event queue
    CScopedThread thread(CScopedThread::EVENT_QUEUE_ONLY);
    CScopedThread other(CScopedThread::REACTOR);
    CCmPreciseTimerQueue* pQueue = manager.GetTimerQueue(thread->GetEventQueue());
    CTestTimer timer;
    CCmPreciseTimerQueue* pFired = nullptr;
    CTestTimer last([&] { pQueue->ReleaseReference(); });
    EXPECT_EQ(CM_ERROR_NOT_FOUND, pQueue->CancelTimer(&timer));
    EXPECT_EQ(CM_ERROR_FAILURE, other->GetLink().Call([&] { return pQueue->ScheduleTimer(&timer, nullptr, Msec(1), 1); }));
    EXPECT_EQ(CM_OK, thread->GetLink().Call([&] {
        pFired = manager.GetTimerQueue();
        pQueue->ScheduleTimer(&last, nullptr, Msec(TWO_HOURS / 2), 1);
        return pQueue->ScheduleTimer(&timer, nullptr, Msec(20), 0);
    }));
    EXPECT_EQ(pQueue, pFired);
    EXPECT_EQ(1u, pFired->ReleaseReference());
    EXPECT_EQ(CM_ERROR_FAILURE, pQueue->CancelTimer(&timer));  // another thread
    for (int nFired = 1; nFired < 5; ++nFired) {
        clock.Advance(Msec(20));
        YieldUntil([&] { return FiredIn(thread, timer) == nFired; });
    }
    clock.Advance(Msec(TWO_HOURS / 2));  // the last release, inside a callback
    ExpectNoCalendar();
}

// The calendar ends before its thread's event queue, its timers are dropped, and the beat goes on for the others.
TEST(PreciseTimerManagerTest, ACalendarEndsWithItsThread) {
    CCmPreciseTimerManager& manager = *CCmPreciseTimerManager::Instance();
    CScopedThread stays(CScopedThread::TASK);
    CCmPreciseTimerQueue* pStays = manager.GetTimerQueue(stays->GetEventQueue());
    CTestTimer timer;
    stays->GetLink().Call([&] { return pStays->ScheduleTimer(&timer, nullptr, Msec(10), 0); });
    for (int nThread = 0; nThread < 20; ++nThread) {
        CTestTimer dropped;  // outlives the thread, in which it may fire beside the last release
        CScopedThread thread(nThread % 2 == 0 ? CScopedThread::EVENT_QUEUE_ONLY : CScopedThread::REACTOR);
        CCmPreciseTimerQueue* pQueue = manager.GetTimerQueue(thread->GetEventQueue());
        thread->GetLink().Call([&] { return pQueue->ScheduleTimer(&dropped, nullptr, Msec(nThread), 0); });
        if (nThread % 4 < 2)
            thread.End();
        pQueue->ReleaseReference();
    }
    const int nFired = FiredIn(stays, timer);
    YieldUntil([&] { return FiredIn(stays, timer) > nFired; });
    pStays->ReleaseReference();
    ExpectNoCalendar();
}
