#include "tools/progress_meter.h"

#include <gtest/gtest.h>

#include "tests/support/fake_clock.h"

namespace tool {

TEST(ToolProgressMeterTest, RateIsThatOfTheLastSeconds) {
    CCmFakeClock clock;
    ProgressMeter meter;
    meter.Begin(100000000);
    EXPECT_EQ(-1, meter.Sample().m_llSecondsLeft);
    for (int i = 0; i < 10; ++i) {  // a slow beginning ...
        clock.Advance(CCmTimeValue(1));
        meter.Advance(1000);
        meter.Sample();
    }
    EXPECT_EQ(1000u, meter.Sample().m_ullRate);
    for (int i = 0; i < 10; ++i) {  // ... is forgotten
        clock.Advance(CCmTimeValue(1));
        meter.Advance(1000000);
        meter.Sample();
    }
    const ProgressSample sample = meter.Sample();
    EXPECT_EQ(1000000u, sample.m_ullRate);
    EXPECT_EQ(10010000u, sample.m_ullDone);
    EXPECT_EQ(90, sample.m_llSecondsLeft);
    EXPECT_EQ("10.0 MB of 100.0 MB (10%), 1.0 MB/s, 1:30 left", FormatProgress(sample));
}

TEST(ToolProgressMeterTest, AFileThatBreaksTakesItsShareAway) {
    CCmFakeClock clock;
    ProgressMeter meter;
    meter.Begin(4000);
    meter.Begin(~uint64_t{0} - 10000);
    meter.Advance(3000);
    clock.Advance(CCmTimeValue(1));
    meter.End(~uint64_t{0} - 10000, 2000);
    const ProgressSample sample = meter.Sample();
    EXPECT_EQ(1000u, sample.m_ullDone);
    EXPECT_EQ(4000u, sample.m_ullTotal);
    EXPECT_EQ(3000u, sample.m_ullRate);
    EXPECT_EQ(1, sample.m_llSecondsLeft);
    meter.End(4000, 1000);
    EXPECT_TRUE(meter.IsIdle());
    EXPECT_EQ("0 bytes of 0 bytes, 3.0 kB/s, 0:00 left", FormatProgress(meter.Sample()));
}

}  // namespace tool
