#include <gtest/gtest.h>

#include "talvo/event/timer_wrapper_id.h"
#include "tests/support/event_helpers.h"
#include "tests/support/fake_clock.h"
#include "tests/support/trace_capture.h"

namespace {

class CSink : public CCmTimerWrapperIDSink {
public:
    void OnTimer(CCmTimerWrapperID* aId) override {
        m_pLast = aId;
        ++m_nTimes;
        if (m_bDelete)
            delete aId;
    }

    CCmTimerWrapperID* m_pLast = nullptr;
    int m_nTimes = 0;
    bool m_bDelete = false;
};

const CCmTimeValue SECOND(1);

}  // namespace

TEST(TimerWrapperTest, AThreadWithoutTimersIsRefused) {
    CCmTraceCapture trace;
    CSink sink;
    CCmTimerWrapperID timer;
    EXPECT_EQ(CM_OK, timer.Cancel());
    EXPECT_EQ(CM_ERROR_NULL_POINTER, timer.Schedule(&sink, SECOND));
    EXPECT_TRUE(trace.Contains("CCmTimerWrapperID::Schedule, this thread doesn't suppport TimerQueue! this="));
}

TEST(TimerWrapperTest, SchedulesItselfInItsThread) {
    CCmFakeClock clock;
    CMainThread main;
    CSink sink;
    CCmTimerWrapperID timer;
    const auto pass = [&] {
        clock.Advance(SECOND);
        main.RunOnce();
    };
    EXPECT_EQ(CM_OK, timer.Schedule(&sink, SECOND));
    pass();
    pass();
    EXPECT_EQ(2, sink.m_nTimes);
    EXPECT_EQ(&timer, sink.m_pLast);
    EXPECT_EQ(CM_ERROR_FOUND, timer.Schedule(&sink, SECOND, 1));
    pass();
    pass();
    EXPECT_EQ(3, sink.m_nTimes);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, timer.Cancel());  // a one-shot stays "scheduled" when it has fired
    EXPECT_EQ(CM_OK, timer.Cancel());

    EXPECT_EQ(CM_OK, timer.Schedule(nullptr, SECOND));  // nobody to tell
    pass();
    EXPECT_EQ(CM_OK, timer.Cancel());
    EXPECT_EQ(3, sink.m_nTimes);
}

TEST(TimerWrapperTest, DeletingItCancels) {
    CCmFakeClock clock;
    CMainThread main;
    CSink sink;
    auto pTimer = std::make_unique<CCmTimerWrapperID>();
    pTimer->Schedule(&sink, SECOND);
    pTimer.reset();
    sink.m_bDelete = true;
    (new CCmTimerWrapperID)->Schedule(&sink, SECOND);  // deleted by the sink, inside the callback
    clock.Advance(CCmTimeValue(3));
    main.RunOnce();
    main.RunOnce();
    EXPECT_EQ(1, sink.m_nTimes);
}
