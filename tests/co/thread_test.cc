// Work of coroutines in other threads, and names.
#include "tests/co/co_fixture.h"

namespace {

// Lives in one thread; counts in CTracked until it has gone there.
struct CHomeBody : CTracked {
    CHomeBody() = default;
    CHomeBody(const CHomeBody&) = default;
    ~CHomeBody() { EXPECT_TRUE(m_Thread == std::thread::id() || m_Thread == std::this_thread::get_id()); }
    std::thread::id m_Thread;
};

talvo::task<int> InItsThread(std::chrono::milliseconds aTime, std::atomic<bool>* aBegun = nullptr) {
    CHomeBody body;
    body.m_Thread = std::this_thread::get_id();
    if (aBegun)
        *aBegun = true;
    co_await talvo::sleep(aTime);
    EXPECT_EQ(body.m_Thread, std::this_thread::get_id());
    if (aTime == 3ms)
        throw std::runtime_error("3");
    co_return 5;
}

talvo::task<> UseThreads() {
    const auto home = std::this_thread::get_id();
    std::optional<talvo::thread> other(std::in_place);
    EXPECT_EQ(5, (co_await talvo::on(*other, [] { return InItsThread(1ms); })).value());
    EXPECT_NE(home, (co_await talvo::on(*other, [] { return std::this_thread::get_id(); })).value());
    EXPECT_EQ(home, std::this_thread::get_id());
    EXPECT_THROW(co_await talvo::on(*other, [] { return InItsThread(3ms); }), std::runtime_error);
    const std::string strShared = "shared";
    const std::string strCopy = (co_await talvo::on(*other, [&]() -> const std::string& { return strShared; })).value();
    EXPECT_EQ(strShared, strCopy);
    // Cancelled by its caller, before and after its begin; then by the end of its thread.
    std::atomic<bool> bBegun = false;
    co_await talvo::with_timeout(0s, talvo::on(*other, [] { return InItsThread(1h); }));
    co_await talvo::with_timeout(20ms, talvo::on(*other, [&] { return InItsThread(1h, &bBegun); }));
    EXPECT_TRUE(bBegun);
    EXPECT_TRUE(co_await talvo::on(*other, [] { EXPECT_EQ(0, CTracked::s_nAlive); }));
    const auto end = [](std::optional<talvo::thread>& aOther) -> talvo::task<> {
        co_await talvo::sleep(10ms);
        aOther.reset();
    };
    const auto [ended, reset] = co_await talvo::when_all(talvo::on(*other, [] { return InItsThread(1h); }), end(other));
    EXPECT_EQ(talvo::errc::not_available, ended.error());
}

talvo::task<> UseWorkers() {
    talvo::worker_pool pool(2, 1);
    std::mutex mutex;
    std::unique_lock lock(mutex);
    std::atomic<int> nBegun = 0;
    talvo::task_group group;
    const auto work = [&]() -> talvo::task<> {
        EXPECT_EQ("done", (co_await pool.run([&] {
                              ++nBegun;
                              const std::lock_guard wait(mutex);
                              return std::string("done");
                          })).value());
    };
    for (int i = 0; i < 3; ++i) {
        group.spawn(work());
        while (nBegun < std::min(i + 1, 2))
            co_await talvo::sleep(1ms);
    }
    EXPECT_EQ(talvo::errc::not_available, (co_await pool.run([] {})).error());
    lock.unlock();
    co_await group.all();
    const std::string strLong(100, 'x');
    const auto copied = [strLong] { return strLong; };
    EXPECT_EQ(strLong, (co_await pool.run(copied)).value());
    auto moved = [pText = std::make_unique<std::string>(strLong)] { return *pText; };
    EXPECT_EQ(strLong, (co_await pool.run(moved)).value());
    static int s_nValue = 4;
    EXPECT_EQ(4, (co_await pool.run([]() -> int& { return s_nValue; })).value());
    EXPECT_EQ(3, nBegun);
    EXPECT_THROW(co_await pool.run([]() -> int { throw std::runtime_error("worker"); }), std::runtime_error);
}

TEST(CoThreadTest, WorkRunsElsewhereAndEndsThere) {
    talvo::application app;
    EXPECT_EQ(0, app.run(UseThreads()));
    EXPECT_EQ(0, app.run(UseWorkers()));
    EXPECT_EQ(0, app.run([]() -> talvo::task<> {
        EXPECT_EQ("127.0.0.1:80", (co_await talvo::resolve("127.0.0.1:80")).value().at(0).to_string());
        const auto addresses = co_await talvo::resolve("localhost:80");
        EXPECT_EQ(80, addresses.value().at(0).port());
        EXPECT_EQ(talvo::errc::invalid_argument, (co_await talvo::resolve("..:80")).error());
    }()));
    EXPECT_EQ(0, CTracked::s_nAlive);
}

}  // namespace
