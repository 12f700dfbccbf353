#include "tools/progress_meter.h"

#include "tests/support/test.h"

namespace tool {

TEST(ToolProgressMeterTest, RateIsThatOfTheLastSeconds) {
    CCmFakeClock clock;
    ProgressMeter meter;
    meter.Begin(100000000);
    for (int i = 0; i < 20; ++i) {  // a slow beginning is forgotten
        clock.Advance(CCmTimeValue(1));
        meter.Advance(i < 10 ? 1000 : 1000000);
        meter.Sample();
    }
    EXPECT_EQ("10.0 MB of 100.0 MB (10%), 1.0 MB/s, 1:30 left", FormatProgress(meter.Sample()));
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
}

}  // namespace tool
