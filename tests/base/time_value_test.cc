#include "talvo/base/time_value.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>

namespace {

void ExpectFields(const CCmTimeValue& aTv, long aSec, long aUsec) {
    EXPECT_EQ(aTv.GetSec(), aSec);
    EXPECT_EQ(aTv.GetUsec(), aUsec);
}

TEST(TimeValue, FieldsNeverHaveOppositeSigns) {
    ExpectFields(CCmTimeValue(1, -1), 0, 999999);
    ExpectFields(CCmTimeValue(-1, 1), 0, -999999);
    ExpectFields(CCmTimeValue(0, -5), 0, -5);
    ExpectFields(CCmTimeValue(0, 2500000), 2, 500000);
    ExpectFields(CCmTimeValue(-2, -3000001), -5, -1);
    ExpectFields(CCmTimeValue(timeval{2, -500000}), 1, 500000);
    ExpectFields(CCmTimeValue(-1.5), -1, -500000);
    ExpectFields(CCmTimeValue(1, 200000) - CCmTimeValue(2, 100000), 0, -900000);
    ExpectFields(CCmTimeValue(1, 600000) + CCmTimeValue(2, 600000), 4, 200000);
}

TEST(TimeValue, MillisecondsTruncateTowardZeroAndWrap) {
    CCmTimeValue tv;
    tv.SetByTotalMsec(-1500);
    ExpectFields(tv, -1, -500000);
    EXPECT_EQ(tv.GetTotalInMsec(), -1500);
    EXPECT_EQ(CCmTimeValue(0, -1999).GetTotalInMsec(), -1);
    EXPECT_EQ(CCmTimeValue(2147484, 0).GetTotalInMsec(), INT32_MIN + 352);
}

TEST(TimeValue, WhatDoesNotFitSaturates) {
    const CCmTimeValue least = CCmTimeValue() - CCmTimeValue::s_tvMax;
    EXPECT_TRUE(CCmTimeValue(LONG_MAX, LONG_MAX) == CCmTimeValue::s_tvMax);
    EXPECT_TRUE(CCmTimeValue(LONG_MIN, LONG_MIN) == least);
    EXPECT_TRUE(CCmTimeValue(1e300) == CCmTimeValue::s_tvMax);
    EXPECT_TRUE(CCmTimeValue(-INFINITY) == least);
    EXPECT_TRUE(CCmTimeValue(std::nan("")) == CCmTimeValue::s_tvZero);
    EXPECT_TRUE(CCmTimeValue::s_tvMax + CCmTimeValue(1) == CCmTimeValue::s_tvMax);
}

TEST(TimeValue, OrdersAcrossZero) {
    const CCmTimeValue before(0, -1);
    const CCmTimeValue zero;
    EXPECT_EQ(before < zero, 1);
    EXPECT_EQ(zero > before, 1);
    EXPECT_EQ(before >= zero, 0);
    EXPECT_EQ(zero <= CCmTimeValue(0, 0), 1);
    EXPECT_EQ(zero >= CCmTimeValue(0, 0), 1);
    EXPECT_EQ(zero != before, 1);
    EXPECT_EQ(CCmTimeValue(-2, -1) < CCmTimeValue(-1, -999999), 1);
}

}  // namespace
