#include "talvo/event/timer_queue_calendar.h"

#include "talvo/event/event_queue_using_mutex.h"
#include "tests/support/event_helpers.h"

namespace {

constexpr DWORD TWO_HOURS = 7200000;

CCmTimeValue Msec(int64_t aMsec) { return CCmTimeValue::FromUsec(aMsec * 1000); }

class TimerQueueCalendarTest : public testing::Test {
protected:
    TimerQueueCalendarTest() { m_Events.Reset2CurrentThreadId(); }

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
    CCmTimerQueueCalendar queue(10, TWO_HOURS, &m_Events);
    CTestTimer timer;
    queue.ScheduleTimer(&timer, nullptr, Msec(10), 0);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(CM_OK, queue.PostTick());
    EXPECT_EQ(1u, m_Events.GetPendingEventsCount());
    CCmEventQueueBase::EventsType events;
    m_Events.PopPendingEventsWithLock(events, 100, nullptr);
    m_Events.ProcessEvents(events);
    EXPECT_EQ(3, timer.m_nFired);
    m_Events.Stop();
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.PostTick());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.PostTick());
}
