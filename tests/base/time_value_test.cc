#include "talvo/base/time_value.h"

#include <cmath>

#include "talvo/base/clock.h"
#include "tests/support/test.h"

namespace {

TEST(TimeValue, WhatDoesNotFitSaturatesExceptMilliseconds) {
    const CCmTimeValue least = CCmTimeValue() - CCmTimeValue::s_tvMax;
    EXPECT_TRUE(CCmTimeValue(LONG_MAX, LONG_MAX) == CCmTimeValue::s_tvMax);
    EXPECT_TRUE(CCmTimeValue(1e300) == CCmTimeValue::s_tvMax);
    EXPECT_TRUE(CCmTimeValue(-INFINITY) == least);
    EXPECT_TRUE(CCmTimeValue(std::nan("")) == CCmTimeValue::s_tvZero);
    EXPECT_TRUE(CCmTimeValue::s_tvMax + CCmTimeValue(1) == CCmTimeValue::s_tvMax);
    EXPECT_EQ(CCmTimeValue(0, -1999).GetTotalInMsec(), -1);
    EXPECT_EQ(CCmTimeValue(2147484, 0).GetTotalInMsec(), INT32_MIN + 352);
}

TEST(Clock, ASteppedWallClockMovesNoTimeOutAndTicksSurviveTheWrap) {
    CCmFakeClock clock;
    const CCmTimeValue tvStart = CCmTimeValue::GetTimeOfDay();
    clock.Advance(CCmTimeValue(7200, 5000));
    clock.SetWallUsec(0);
    EXPECT_TRUE(CCmTimeValue::GetTimeOfDay() - tvStart == CCmTimeValue(7200, 5000));
    EXPECT_EQ(calculate_tick_interval(0xFFFFFFF0u, 0x10), 0x20u);
}

}  // namespace
