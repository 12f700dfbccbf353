// Coroutines over a simulated network.
#pragma once

#include "talvo/co.h"
#include "talvo/testing/testing.h"
#include "tests/support/test.h"

using namespace std::chrono_literals;

class CCoTest : public testing::Test {
protected:
    // Runs a task until it ends, at most a simulated hour.
    void Run(talvo::task<> aTask) {
        m_Tasks.spawn(std::move(aTask));
        EXPECT_TRUE(m_Network.RunUntil([this] { return m_Tasks.size() == 0; }, CCmTimeValue(3600)));
        m_Tasks.cancel();
    }

    CCmSimNetwork m_Network{1};
    talvo::task_group m_Tasks{[](std::exception_ptr aFailed) { EXPECT_NO_THROW(std::rethrow_exception(aFailed)); }};
};

// Counts its objects, to find what a destroyed coroutine leaves behind.
struct CTracked {
    CTracked() { ++s_nAlive; }
    CTracked(const CTracked&) { ++s_nAlive; }
    ~CTracked() { --s_nAlive; }
    static inline std::atomic<int> s_nAlive = 0;
};

inline talvo::task<> Echo(talvo::connection aPeer) {
    const CTracked tracked;
    while (auto message = co_await aPeer.receive())
        co_await aPeer.send(*message);
}
