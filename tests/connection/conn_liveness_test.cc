#include "talvo/connection/protocol/conn_liveness.h"

#include "tests/support/test.h"

TEST(ConnLivenessTest, SilenceIsCountedFromTheEndOfAPause) {
    CCmFakeClock clock;
    talvo::CConnLiveness liveness;
    clock.Advance(CCmTimeValue(1000));
    EXPECT_FALSE(liveness.IsPeerSilent()) << "no bytes have come";
    liveness.OnReceived();
    for (const BOOL bPaused : {FALSE, TRUE, FALSE}) {
        liveness.SetReadingPaused(bPaused);
        clock.Advance(CCmTimeValue(119));
        EXPECT_FALSE(liveness.IsPeerSilent()) << bPaused;
    }
    clock.Advance(CCmTimeValue(1));
    EXPECT_TRUE(liveness.IsPeerSilent());
}
