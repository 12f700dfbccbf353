#include "talvo/event/timer_wrapper_id.h"
#include "tests/support/event_helpers.h"

namespace {

class CSink : public CCmTimerWrapperIDSink {
public:
    void OnTimer(CCmTimerWrapperID* aId) override {
        ++m_nTimes;
        if (m_bDelete)
            delete aId;
    }

    int m_nTimes = 0;
    bool m_bDelete = false;
};

const CCmTimeValue SECOND(1);

}  // namespace

// The usual way to write it: wrappers beside the call of the loop, the documented shutdown, and then the end of their scope.
TEST(TimerWrapperTest, OutlivesItsThread) {
    CCmFakeClock clock;
    CSink sink;
    CCmTimerWrapperID fired;
    CCmTimerWrapperID pending;
    {
        CMainThread main;
        EXPECT_EQ(CM_OK, fired.Schedule(&sink, CCmTimeValue::s_tvZero, 1));
        EXPECT_EQ(CM_OK, pending.Schedule(&sink, SECOND));
        main.RunOnce();
        main.GetReactor().StopEventLoop();
        main.Get()->OnThreadRun();
        EXPECT_EQ(CM_ERROR_NULL_POINTER, fired.Cancel());
        EXPECT_EQ(CM_ERROR_NULL_POINTER, fired.Schedule(&sink, SECOND));  // the loop is over
    }
    EXPECT_EQ(CM_ERROR_NULL_POINTER, pending.Cancel());
    EXPECT_EQ(CM_OK, pending.Cancel());
    EXPECT_EQ(1, sink.m_nTimes);

    CMainThread main;  // another one
    EXPECT_EQ(CM_OK, pending.Schedule(&sink, CCmTimeValue::s_tvZero, 1));
    main.RunOnce();
    EXPECT_EQ(2, sink.m_nTimes);
}
