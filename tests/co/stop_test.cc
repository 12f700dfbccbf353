// Every wait ends when a stop is requested.
#include "tests/co/co_fixture.h"
#include "tests/support/dns_helpers.h"

namespace {

namespace http = talvo::http;

// aWait makes an operation from a token. The stop comes while it waits.
template <class Wait>
talvo::task<> ExpectStopped(const char* aWhat, Wait aWait) {
    std::stop_source source;
    talvo::task_group other;
    other.spawn([](std::stop_source aSource) -> talvo::task<> {
        co_await talvo::sleep(20ms);
        aSource.request_stop();
    }(source));
    const auto outcome = co_await aWait(source.get_token());
    EXPECT_EQ(std::errc::operation_canceled, outcome.error()) << aWhat;
}

using CoStopTest = CCoTest;

talvo::task<> StopConnections(CCmSimNetwork& aNetwork) {
    auto peer = (co_await talvo::connect("10.0.0.1:7000", talvo::tcp)).value();
    talvo::task_group group;
    group.spawn([]() -> talvo::task<> { co_await talvo::sleep(1h); }());
    const std::string strLong(100000, 'x');
    co_await ExpectStopped("sleep", [](auto aToken) { return talvo::sleep(1h, aToken); });
    co_await ExpectStopped("below", [&](auto aToken) { return group.below(1, aToken); });
    co_await ExpectStopped("all", [&](auto aToken) { return group.all(aToken); });
    co_await ExpectStopped("receive", [&](auto aToken) { return peer.receive(aToken); });
    co_await ExpectStopped(
        "with_stop", [&](auto aToken) { return talvo::with_stop(aToken, talvo::when_all(talvo::sleep(1h), peer.receive())); });
    co_await peer.send("x");
    EXPECT_EQ("x", (co_await peer.receive()).value().str());
    EXPECT_EQ(1u, group.size());
    co_await ExpectStopped("send", [&](auto aToken) { return peer.send(strLong, aToken); });
    aNetwork.SetPath({.m_tvConnect = CCmTimeValue(90)});
    co_await ExpectStopped("connect",
                           [](auto aToken) { return talvo::connect("10.0.0.1:7000", talvo::tcp, {.timeout = 1h}, aToken); });
}

TEST_F(CoStopTest, OfConnections) {
    m_Network.SetPath({.m_dwBuffer = 1000});
    talvo::listener listener;
    ASSERT_TRUE(listener.listen("10.0.0.1:7000", talvo::tcp, [](talvo::connection aPeer) -> talvo::task<> {
        co_await aPeer.send((co_await aPeer.receive()).value());
        co_await talvo::sleep(1h);
    }));
    Run(StopConnections(m_Network));
}

talvo::task<> StopHandler(http::incoming aCall) {
    const std::string strLong(100000, 'x');
    co_await ExpectStopped("incoming::receive", [&](auto aToken) { return aCall.receive(aToken); });
    co_await ExpectStopped("incoming::body", [&](auto aToken) { return aCall.body(9, aToken); });
    co_await ExpectStopped("incoming::form", [&](auto aToken) { return aCall.form(9, aToken); });
    aCall.begin(200);
    co_await aCall.send(strLong);
    co_await ExpectStopped("incoming::send", [&](auto aToken) { return aCall.send(strLong, aToken); });
    co_await talvo::sleep(1h);
}

TEST_F(CoStopTest, OfHttp) {
    m_Network.SetPath({.m_dwBuffer = 1000});
    http::server server;
    ASSERT_TRUE(server.listen("10.0.0.1:80", http::router().put("/", StopHandler).get("/", [](http::incoming) -> talvo::task<> {
        co_await talvo::sleep(1h);
    })));
    Run([]() -> talvo::task<> {
        const std::string strUrl = "http://10.0.0.1/", strLong(100000, 'x');
        co_await ExpectStopped("get", [&](auto aToken) { return http::get(strUrl, aToken); });
        co_await ExpectStopped("fetch", [&](auto aToken) { return http::fetch({.url = strUrl}, aToken); });
        auto call = http::start({.url = strUrl, .method = "PUT", .streamed = true}).value();
        co_await ExpectStopped("head", [&](auto aToken) { return call.head(aToken); });
        EXPECT_EQ(200, (co_await call.head()).value());
        co_await call.send(strLong);
        co_await ExpectStopped("exchange::send", [&](auto aToken) { return call.send(strLong, aToken); });
        for (size_t stReceived = 0; stReceived < strLong.size();)
            stReceived += (co_await call.receive()).value().size();
        co_await ExpectStopped("exchange::receive", [&](auto aToken) { return call.receive(aToken); });
    }());
}

TEST(CoStopThreadTest, OfWorkElsewhereAndOfNames) {
    const CSilentServer silent;
    const CCmTempDir dir;
    load_config_file(dir.Write("talvo.cfg", "[Dns]\nTimeoutMs=60000\nServers=" + silent.m_strAddress + "\n").c_str());
    talvo::application app;
    EXPECT_EQ(0, app.run([]() -> talvo::task<> {
        talvo::thread other;
        CCmSemaphoreThread end;
        talvo::worker_pool pool(1);
        co_await ExpectStopped("on", [&](auto aToken) {
            return talvo::on(
                other, []() -> talvo::task<> { co_await talvo::sleep(1h); }, aToken);
        });
        co_await ExpectStopped("run", [&](auto aToken) { return pool.run([&] { end.Lock(); }, aToken); });
        end.UnLock();
        co_await ExpectStopped("resolve", [](auto aToken) { return talvo::resolve("one.test:80", aToken); });
    }()));
    load_config_file("");
}

}  // namespace
