// Tasks and their combinations, without connections.
#include "tests/co/co_fixture.h"

namespace {

class TaskTest : public CCoTest {};

talvo::task<int> At(std::chrono::seconds aTime, int aValue) {
    const CTracked tracked;
    if (aTime > 0s)
        co_await talvo::sleep(aTime);
    if (aValue < 0)
        throw std::runtime_error("negative");
    co_return aValue;
}

// Awaits that complete at once take no stack, also without optimisation.
TEST_F(TaskTest, AValueAndAnExceptionReachTheAwaitingTaskWithoutStack) {
    Run([]() -> talvo::task<> {
        int64_t llSum = 0;
        for (int i = 0; i < 2000000; ++i)
            llSum += co_await At(0s, 1);
        EXPECT_EQ(2000000, llSum);
        EXPECT_THROW(co_await At(1s, -1), std::runtime_error);
        talvo::task<int> once = At(0s, 7);
        EXPECT_EQ(7, co_await once);
        EXPECT_THROW(co_await once, std::logic_error);
    }());
    EXPECT_EQ(0, CTracked::s_nAlive);
}

#ifdef __clang__
#pragma clang diagnostic ignored "-Wreturn-type"  // which finds this fault earlier
#endif
talvo::task<int> WithoutAValue(bool aGiven) {
    co_await talvo::sleep(0s);
    if (aGiven)
        co_return 1;
}

TEST_F(TaskTest, ATaskWithoutItsValueFails) {
    Run([]() -> talvo::task<> {
        EXPECT_EQ(1, co_await WithoutAValue(true));
        EXPECT_THROW(co_await WithoutAValue(false), std::logic_error);
        EXPECT_THROW(co_await talvo::with_timeout(1s, WithoutAValue(false)), std::logic_error);
    }());
}

talvo::task<int> WithoutAVariable() {
    if (!co_await talvo::sleep(0s))
        co_return 1;
    co_return 2;
}

// GCC 12 miscompiles such a coroutine; it then fails before it runs.
TEST_F(TaskTest, AMiscompiledFrameIsNoticed) {
    Run([]() -> talvo::task<> {
        int nValue = 2;
        try {
            nValue = co_await WithoutAVariable();
        } catch (const std::logic_error&) {
        }
        EXPECT_EQ(2, nValue);
    }());
}

TEST_F(TaskTest, ALimitCancelsTheOperationAndAWinnerTheOthers) {
    Run([](CCmSimNetwork& aNetwork) -> talvo::task<> {
        const auto tvStart = aNetwork.Now();
        const auto late = co_await talvo::with_timeout(2s, At(5s, 1));
        EXPECT_EQ(std::errc::timed_out, late.error());
        EXPECT_EQ(0, CTracked::s_nAlive);
        EXPECT_EQ(3, (co_await talvo::with_timeout(2s, At(1s, 3))).value());
        const auto first = co_await talvo::when_any(At(5s, 1), talvo::sleep(9s), At(2s, 2));
        EXPECT_EQ(2u, first.index());
        EXPECT_EQ(0, CTracked::s_nAlive);
        EXPECT_EQ(CCmTimeValue(5), aNetwork.Now() - tvStart);
        const auto [a, b, c] = co_await talvo::when_all(At(2s, 1), talvo::sleep(1s), At(0s, 3));
        EXPECT_TRUE(a == 1 && b && c == 3);
        std::vector<talvo::task<int>> tasks;
        for (int i = 0; i < 3; ++i)
            tasks.push_back(At(std::chrono::seconds(3 - i), i));
        const std::vector<int> values = co_await talvo::when_all(std::move(tasks));
        EXPECT_TRUE(values.size() == 3 && values[0] == 0 && values[2] == 2);
        EXPECT_EQ(CCmTimeValue(10), aNetwork.Now() - tvStart);
        EXPECT_THROW(co_await talvo::when_all(At(0s, 1), At(2s, -1)), std::runtime_error);
    }(m_Network));
}

struct CHandOver {
    std::coroutine_handle<> m_Waits;
    bool await_ready() const { return false; }
    void await_suspend(std::coroutine_handle<> a) { m_Waits = a; }
    int await_resume() const { return 7; }
};

TEST_F(TaskTest, AnOperationMayEndWhileALaterOneStarts) {
    Run([]() -> talvo::task<> {
        CHandOver gate;
        const auto wait = [](CHandOver& aGate) -> talvo::task<int> { co_return co_await aGate; };
        const auto open = [](CHandOver& aGate) -> talvo::task<int> {
            const CTracked tracked;
            aGate.m_Waits.resume();
            EXPECT_EQ(1, CTracked::s_nAlive);
            co_await talvo::sleep(9s);
            co_return 8;
        };
        const auto first = co_await talvo::when_any(wait(gate), open(gate));
        EXPECT_EQ(0u, first.index());
        EXPECT_EQ(7, std::get<0>(first));
        EXPECT_EQ(0, CTracked::s_nAlive);
    }());
}

TEST(ResultTest, AnErrorStaysAnErrorInAnotherType) {
    const talvo::result<int> failed = talvo::make_error_code(CM_ERROR_TIMEOUT);
    EXPECT_EQ(std::errc::timed_out, talvo::result<bool>(failed).error());
    EXPECT_FALSE(talvo::result<bool>(failed));
    EXPECT_EQ(3.0, talvo::result<double>(talvo::result<int>(3)).value());
}

TEST_F(TaskTest, AStopFromAnotherThreadEndsAWait) {
    Run([]() -> talvo::task<> {
        std::stop_source source;
        std::thread other;
        talvo::task_group group;
        group.spawn([](std::stop_source aSource, std::thread& aOther) -> talvo::task<> {
            co_await talvo::sleep(1s);
            aOther = std::thread([aSource]() mutable { aSource.request_stop(); });
            aOther.join();
        }(source, other));
        const auto stopped = co_await talvo::with_stop(source.get_token(), talvo::sleep(9s));
        EXPECT_EQ(std::errc::operation_canceled, stopped.error());
        EXPECT_EQ(std::errc::operation_canceled, (co_await talvo::with_stop(source.get_token(), At(0s, 1))).error());
        EXPECT_TRUE(co_await talvo::with_stop(std::stop_token(), talvo::sleep(1s)));
    }());
    EXPECT_LT(m_Network.Now(), CCmTimeValue(5));
}

TEST_F(TaskTest, AGroupBoundsItsTasksAndRethrowsTheirFirstException) {
    Run([]() -> talvo::task<> {
        talvo::task_group group;
        for (int i = 0; i < 10; ++i) {
            co_await group.below(3);
            EXPECT_LT(group.size(), 3u);
            group.spawn([](int aNumber) -> talvo::task<> { co_await At(1s, aNumber == 4 ? -1 : aNumber); }(i));
        }
        EXPECT_THROW(co_await group.all(), std::runtime_error);
        co_await group.all();
        group.spawn([]() -> talvo::task<> { co_await At(99s, 1); }());
        EXPECT_EQ(1, CTracked::s_nAlive);
    }());
    EXPECT_EQ(0, CTracked::s_nAlive);
    EXPECT_LT(m_Network.Now(), CCmTimeValue(9));
}

}  // namespace
