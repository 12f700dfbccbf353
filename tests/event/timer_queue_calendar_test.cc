#include "talvo/event/timer_queue_calendar.h"

#include <gtest/gtest.h>

#include "talvo/event/event_queue_using_mutex.h"
#include "tests/support/event_helpers.h"
#include "tests/support/trace_capture.h"

namespace {

constexpr DWORD TWO_HOURS = 7200000;

CCmTimeValue Msec(int64_t aMsec) { return CCmTimeValue::FromUsec(aMsec * 1000); }

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
    EXPECT_EQ(2, queue.Tick());
    EXPECT_EQ("badc", strFired);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.CancelTimer(&c));
    for (int i = 0; i < 10; ++i)
        queue.Tick();
    EXPECT_EQ("badcdd", strFired);
    EXPECT_EQ(CCmTimeValue::s_tvMax, queue.GetEarliestTime());
}

TEST_F(TimerQueueCalendarTest, CallbacksMayCancelAndRearm) {
    CCmTimerQueueCalendar queue(10, TWO_HOURS, &m_Events);
    CTestTimer neighbour;
    CTestTimer again([&] {
        queue.CancelTimer(&neighbour);
        queue.ScheduleTimer(&again, nullptr, Msec(0), 1);
    });
    queue.ScheduleTimer(&neighbour, nullptr, Msec(10), 0);
    queue.ScheduleTimer(&again, nullptr, Msec(10), 1);
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(1, queue.Tick());
        EXPECT_EQ(i, again.m_nFired);
    }
    EXPECT_EQ(0, neighbour.m_nFired);
}

TEST_F(TimerQueueCalendarTest, TooLongAnIntervalIsPlacedATurnAheadAndLogged) {
    CCmTimerQueueCalendar queue(1, 5, &m_Events);  // at least slots of 10 ms, at least 11 of them
    CCmTraceCapture trace;
    CTestTimer longest;
    CTestTimer tooLong;
    queue.ScheduleTimer(&longest, nullptr, Msec(90), 1);
    EXPECT_FALSE(trace.Contains("exceed max interval"));
    queue.ScheduleTimer(&tooLong, nullptr, Msec(10800000), 1);
    EXPECT_TRUE(
        trace.Contains("CCmTimerQueueCalendar::InsertUnique_i, exceed max interval. interval_s=10800 interval_us=0"
                       " m_dwMaxSlotNumber=10"));
    for (int i = 0; i < 9; ++i)
        queue.Tick();
    EXPECT_EQ(1, longest.m_nFired);
    EXPECT_EQ(0, tooLong.m_nFired);
    EXPECT_EQ(1, queue.Tick());
    EXPECT_EQ(1, tooLong.m_nFired);
}

TEST_F(TimerQueueCalendarTest, PostedTicksAreMadeUpForTogether) {
    CCmTimerQueueCalendar queue(10, TWO_HOURS, &m_Events);
    CTestTimer timer;
    queue.ScheduleTimer(&timer, nullptr, Msec(10), 0);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(CM_OK, queue.PostTick());
    EXPECT_EQ(1u, m_Events.GetPendingEventsCount());
    RunEvents();
    EXPECT_EQ(3, timer.m_nFired);
    m_Events.Stop();
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.PostTick());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.PostTick());

    CCmTimerQueueCalendar homeless(10, TWO_HOURS, nullptr);  // this thread has no queue
    EXPECT_EQ(CM_ERROR_NULL_POINTER, homeless.PostTick());
}
