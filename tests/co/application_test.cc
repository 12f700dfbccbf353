// The frame of a program, over real sockets.
#include <poll.h>

#include <csignal>

#include "tests/co/co_fixture.h"
#include "tests/co/second_application.h"

namespace {

TEST(ApplicationTest, RunsATaskAndRefusesASecondOne) {
    talvo::application app;
    ASSERT_TRUE(app) << app.error();
    talvo::application second;
    EXPECT_EQ(talvo::errc::already_initialized, second.error());
    EXPECT_EQ(talvo::errc::already_initialized, StartSecondApplication());
    second.stop(1);  // not the loop of the first one
    app.spawn([](talvo::application& aSecond) -> talvo::task<> {
        EXPECT_EQ(talvo::errc::already_initialized, (co_await aSecond.connect("127.0.0.1:1", talvo::tcp)).error());
    }(second));
    const auto bound = app.listen("127.0.0.1:0", talvo::package, Echo);
    ASSERT_TRUE(bound);
    testing::internal::CaptureStderr();
    app.spawn([]() -> talvo::task<> {
        co_await talvo::sleep(1ms);
        throw std::runtime_error("no reason");
    }());
    EXPECT_EQ(7, app.run([](std::string aAddress) -> talvo::task<int> {
        auto peer = (co_await talvo::connect(aAddress, talvo::package)).value();
        co_await peer.send("hello");
        EXPECT_EQ("hello", (co_await peer.receive()).value().str());
        co_await talvo::sleep(2ms);
        co_return 7;
    }(bound->to_string())));
    EXPECT_EQ("talvo: a task has failed: no reason\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ(0, CTracked::s_nAlive);
}

TEST(ApplicationTest, EndsInOrderOnASignalAndAtOnceWithoutAListener) {
    talvo::application app;
    const auto bound = app.listen("127.0.0.1:0", talvo::tcp, Echo);
    std::error_code end;
    app.spawn([](std::string aAddress, std::error_code& aEnd) -> talvo::task<> {
        auto peer = (co_await talvo::connect(aAddress, talvo::tcp)).value();
        kill(getpid(), SIGTERM);
        aEnd = (co_await peer.receive()).error();
    }(bound.value().to_string(), end));
    EXPECT_EQ(0, app.run_until_signal());
    EXPECT_EQ(talvo::errc::socket_close, end);
    app.spawn([]() -> talvo::task<> {
        kill(getpid(), SIGINT);
        co_await talvo::sleep(99s);
    }());
    EXPECT_EQ(128 + SIGINT, app.run(talvo::task<>([]() -> talvo::task<> { co_await talvo::sleep(99s); }())));
    EXPECT_EQ(std::errc::address_not_available, app.listen("192.0.2.1:1", talvo::tcp, Echo).error());
    testing::internal::CaptureStderr();
    EXPECT_EQ(1, app.run_until_signal());
    EXPECT_EQ("talvo: cannot listen on 192.0.2.1:1: Cannot assign requested address\n", testing::internal::GetCapturedStderr());
    EXPECT_TRUE(app.listen("127.0.0.1:0", talvo::tcp, Echo));
    app.stop(3);
    app.stop();
    EXPECT_EQ(3, app.run_until_signal());
}

TEST(ApplicationTest, ATaskThatEndsInTheDrainLeavesTheStatusOfTheSignal) {
    talvo::application app;
    EXPECT_EQ(128 + SIGTERM, app.run([](talvo::application& aApp) -> talvo::task<int> {
        kill(getpid(), SIGTERM);
        co_await talvo::sleep(99s, aApp.stop_token());
        co_return 0;
    }(app)));
}

TEST(ApplicationTest, AnotherLoopRunsItAndItsEndDrains) {
    std::error_code end;
    {
        talvo::application app;
        const auto bound = app.listen("127.0.0.1:0", talvo::tcp, Echo);
        app.spawn([](talvo::application& aApp, std::string aAddress, std::error_code& aEnd) -> talvo::task<> {
            auto peer = (co_await aApp.connect(aAddress, talvo::tcp)).value();
            co_await peer.send("hello");
            EXPECT_EQ("hello", (co_await peer.receive()).value().str());
            aApp.stop();
            aEnd = (co_await peer.receive()).error();
        }(app, bound.value().to_string(), end));
        ICmEmbeddedLoop& loop = *app.embedded_loop();
        pollfd entry{loop.GetPollHandle(), POLLIN, 0};
        while (loop.RunOnce() == CM_OK)
            poll(&entry, 1, loop.GetTimeout());
        EXPECT_FALSE(end);
    }
    EXPECT_EQ(talvo::errc::socket_close, end);
}

// An application that has not started starts no task and leaves the loop of another thread alone.
TEST(ApplicationTest, IsRefusedBesideAnotherMainThread) {
    CCmThreadManager& manager = *CCmThreadManager::Instance();
    ASSERT_EQ(CM_OK, manager.InitMainThread(0, nullptr));
    std::thread([] {
        talvo::application app;
        EXPECT_EQ(talvo::errc::already_initialized, app.error());
        EXPECT_EQ(app.error(), app.listen("127.0.0.1:0", talvo::tcp, Echo).error());
        app.spawn([]() -> talvo::task<> {
            ADD_FAILURE() << "started";
            co_return;
        }());
        app.stop();
        EXPECT_FALSE(app.embedded_loop());
        EXPECT_EQ(1, app.run_until_signal());
    }).join();
    EXPECT_EQ(CM_OK, cm_get_embedded_loop(manager.GetThreadReactor(CCmThreadManager::TT_MAIN))->RunOnce());
    manager.GetThread(CCmThreadManager::TT_MAIN)->Destory(CM_OK);
}

}  // namespace
