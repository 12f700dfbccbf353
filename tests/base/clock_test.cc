#include "talvo/base/clock.h"

#include <gtest/gtest.h>

#include "talvo/base/time_value.h"
#include "tests/support/fake_clock.h"

namespace {

TEST(Clock, AReplacedSourceMovesEverythingAndASteppedWallClockMovesNoTimeOut) {
    CCmFakeClock clock;
    const CCmTimeValue tvStart = CCmTimeValue::GetTimeOfDay();
    const DWORD dwTick = get_tick_count();
    const int64_t llWall = CCmClock::GetWallUsec();

    clock.Advance(CCmTimeValue(7200, 5000));
    EXPECT_TRUE(CCmTimeValue::GetTimeOfDay() - tvStart == CCmTimeValue(7200, 5000));
    EXPECT_EQ(calculate_tick_interval(dwTick, get_tick_count()), 7200005u);
    EXPECT_EQ(CCmClock::GetWallUsec() - llWall, 7200005000);

    clock.SetWallUsec(0);
    EXPECT_EQ(CCmClock::GetWallUsec(), 0);
    EXPECT_TRUE(CCmTimeValue::GetTimeOfDay() - tvStart == CCmTimeValue(7200, 5000));
}

TEST(Clock, TickIntervalsSurviveTheWrap) {
    EXPECT_EQ(calculate_tick_interval(0xFFFFFFF0u, 0x10), 0x20u);
    EXPECT_EQ(calculate_tick_interval(5, 5), 0u);
}

}  // namespace
