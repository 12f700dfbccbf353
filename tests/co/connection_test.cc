// Connections of coroutines.
#include <csignal>

#include "tests/co/co_fixture.h"

namespace {

constexpr const char* ADDRESS = "10.0.0.1:7000";

class CoConnectionTest : public CCoTest {
protected:
    void Listen(talvo::kind aKind, talvo::listener::handler aServe) {
        ASSERT_TRUE(m_Listener.listen(ADDRESS, aKind, std::move(aServe)));
    }

    talvo::listener m_Listener;
};

// Sends 300 messages and half-closes; all come back, over a link that takes only parts of sends.
talvo::task<> EchoOver(talvo::kind aKind, bool aStream, CCmSimNetwork& aNetwork) {
    auto peer = co_await talvo::connect(ADDRESS, aKind, {.timeout = 9s});
    EXPECT_TRUE(peer) << peer.error();
    aNetwork.SetPath({.m_PartialSend = 0.3, .m_dwBuffer = 5000});
    std::string strSent, strReceived;
    talvo::task_group sender;
    sender.spawn([](talvo::connection& aPeer, std::string& aSent) -> talvo::task<> {
        for (int i = 0; i < 300; ++i) {
            const std::string strMessage = "message " + std::to_string(i) + std::string(static_cast<size_t>(i), '.');
            EXPECT_TRUE(co_await aPeer.send(strMessage));
            aSent += strMessage;
        }
        aPeer.end_sending();
    }(*peer, strSent));
    while (strReceived.size() < 48040) {
        const auto message = co_await peer->receive();
        if (!message)
            break;
        strReceived += message->view();
        EXPECT_TRUE(aStream || message->view().starts_with("message "));
    }
    EXPECT_TRUE(strSent.size() == 48040 && strSent == strReceived) << strReceived.size();
    if (aStream) {
        EXPECT_EQ(std::error_code(), (co_await peer->receive()).error());
        EXPECT_FALSE(co_await peer->send("x"));
    }
}

TEST_F(CoConnectionTest, AHandlerThatMakesNoTaskIsReported) {
    int nFailed = 0;
    talvo::listener listener([&](std::exception_ptr) { ++nFailed; });
    ASSERT_TRUE(
        listener.listen(ADDRESS, talvo::tcp, [](talvo::connection) -> talvo::task<> { throw std::runtime_error("none"); }));
    Run([]() -> talvo::task<> {
        auto peer = co_await talvo::connect(ADDRESS, talvo::tcp);
        EXPECT_TRUE(peer && !co_await peer->receive());
    }());
    EXPECT_EQ(1, nFailed);
}

TEST_F(CoConnectionTest, EchoesOverEveryKind) {
    for (const talvo::kind kind : {talvo::tcp, talvo::length, talvo::package, talvo::reliable}) {
        m_Network.SetPath({});
        Listen(kind, Echo);
        Run(EchoOver(kind, kind == talvo::tcp, m_Network));
        m_Listener.stop();
        m_Network.RunFor(CCmTimeValue(300));
        EXPECT_EQ(0u, m_Listener.tasks().size());
    }
    for (const talvo::kind kind : {talvo::udp, talvo::package.over(talvo::udp)}) {
        m_Network.SetPath({});
        Listen(kind, Echo);
        Run([](talvo::kind aKind) -> talvo::task<> {
            auto peer = co_await talvo::connect(ADDRESS, aKind);
            co_await peer.value().send(std::as_bytes(std::span("datagram", 8)));
            EXPECT_EQ("datagram", (co_await peer->receive()).value().str());
            EXPECT_EQ(ADDRESS, peer->peer_address().to_string());
        }(kind));
        m_Listener.stop();
        m_Listener.tasks().cancel();
    }
    EXPECT_EQ(CM_ERROR_NOT_IMPLEMENTED, m_Listener.listen(ADDRESS, talvo::reliable.over(talvo::udp), Echo).error().value());
}

// A message that a coroutine keeps stays in place; one that does not receive makes the sender wait.
TEST_F(CoConnectionTest, AMessageOutlivesItsUpcallAndASlowReceiverMakesTheSenderWait) {
    m_Network.SetPath({.m_dwBuffer = 10000, .m_dwMaxPiece = 4000});
    size_t stTaken = 0;
    Listen(talvo::tcp, [&](talvo::connection aPeer) -> talvo::task<> {
        auto first = (co_await aPeer.receive()).value();
        const std::string_view view = first.view();
        const talvo::message moved = (co_await aPeer.receive()).value();
        co_await talvo::sleep(60s);
        EXPECT_EQ(view, first.view());
        EXPECT_EQ(view.data(), first.view().data());
        EXPECT_EQ('x', view.back());
        EXPECT_EQ('x', moved.view().front());
        EXPECT_LT(stTaken, 100000u);
        EXPECT_GT(stTaken, 60000u);
        size_t stReceived = first.size() + moved.size();
        while (const auto message = co_await aPeer.receive())
            stReceived += message->size();
        EXPECT_EQ(300000u, stReceived);
    });
    Run([](size_t& aTaken) -> talvo::task<> {
        auto peer = (co_await talvo::connect(ADDRESS, talvo::tcp)).value();
        for (; aTaken < 300000; aTaken += 1000)
            EXPECT_TRUE(co_await peer.send(std::string(1000, 'x')));
    }(stTaken));
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ(0u, m_Listener.tasks().size());
}

// Each message costs memory besides its bytes.
TEST_F(CoConnectionTest, SmallMessagesMakeTheSenderWaitToo) {
    m_Network.SetPath({.m_dwBuffer = 10000});
    Listen(talvo::length, [](talvo::connection aPeer) -> talvo::task<> {
        co_await talvo::sleep(60s);
        int nReceived = 0;
        while (const auto message = co_await aPeer.receive())
            nReceived += message->size() == 1;
        EXPECT_EQ(20000, nReceived);
    });
    Run([](CCmSimNetwork& aNetwork) -> talvo::task<> {
        auto peer = (co_await talvo::connect(ADDRESS, talvo::length)).value();
        for (int i = 0; i < 20000; ++i) {
            EXPECT_TRUE(co_await peer.send("x"));
            EXPECT_TRUE(i < 5000 || aNetwork.Now() > CCmTimeValue(60)) << i;
        }
    }(m_Network));
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ(0u, m_Listener.tasks().size());
}

// The bytes belong to the message before another thread may use it; the thread sanitizer checks that.
TEST_F(CoConnectionTest, WorkersMayHaveReceivedMessages) {
    talvo::worker_pool pool(2);
    Listen(talvo::tcp, Echo);
    std::string strGot;
    m_Tasks.spawn([](talvo::worker_pool& aPool, std::string& aGot) -> talvo::task<> {
        auto peer = (co_await talvo::connect(ADDRESS, talvo::tcp)).value();
        co_await peer.send("hello");
        auto message = (co_await peer.receive()).value();
        const auto work = [m = std::make_shared<talvo::message>(std::move(message))] { return m->str(); };
        aGot = (co_await aPool.run(work)).value();
    }(pool, strGot));
    while (strGot.empty())
        m_Network.RunFor(CCmTimeValue(0, 1000));
    EXPECT_EQ("hello", strGot);
}

struct CDeliveries : ICmSimObserver {
    void OnReceive(const CCmSimEnd&, const std::string&) override { ++m_nCount; }
    int m_nCount = 0;
};

// So does each empty datagram, which has no bytes at all.
TEST_F(CoConnectionTest, EmptyDatagramsAreNotKeptWithoutLimit) {
    CDeliveries deliveries;
    m_Network.SetObserver(&deliveries);
    int nReceived = 0;
    Listen(talvo::udp, [&](talvo::connection aPeer) -> talvo::task<> {
        co_await talvo::sleep(60s);
        EXPECT_EQ(256, deliveries.m_nCount);
        while (const auto datagram = co_await talvo::with_timeout(1s, aPeer.receive()))
            nReceived += datagram->empty();
    });
    Run([]() -> talvo::task<> {
        auto peer = (co_await talvo::connect(ADDRESS, talvo::udp)).value();
        for (int i = 0; i < 2000; ++i)
            EXPECT_TRUE(co_await peer.send(""));
        co_await talvo::sleep(90s);
    }());
    m_Network.SetObserver(nullptr);
    EXPECT_EQ(2000, nReceived);
}

TEST_F(CoConnectionTest, FailuresHaveTheirErrors) {
    Run([](CCmSimNetwork& aNetwork, talvo::listener& aListener) -> talvo::task<> {
        EXPECT_EQ(std::errc::connection_refused, (co_await talvo::connect(ADDRESS, talvo::tcp)).error());
        EXPECT_EQ(std::errc::invalid_argument, (co_await talvo::connect("nonsense", talvo::tcp)).error());
        EXPECT_EQ(talvo::errc::dns_failure, (co_await talvo::connect("no.such.name:1", talvo::tcp)).error());
        EXPECT_TRUE(aListener.listen(ADDRESS, talvo::tcp, Echo));
        EXPECT_EQ(talvo::errc::already_initialized, aListener.listen(ADDRESS, talvo::tcp, Echo).error());
        aNetwork.SetPath({.m_tvConnect = CCmTimeValue(90)});
        EXPECT_EQ(std::errc::timed_out, (co_await talvo::connect(ADDRESS, talvo::tcp, {.timeout = 1ns})).error());
        aNetwork.SetPath({.m_ullCutAfter = 7});
        auto peer = (co_await talvo::connect(ADDRESS, talvo::tcp)).value();
        EXPECT_EQ(std::errc::timed_out, (co_await talvo::with_timeout(3s, peer.receive())).error());
        co_await peer.send("0123456789");
        EXPECT_EQ(std::errc::connection_reset, (co_await peer.receive()).error());
        EXPECT_EQ(std::errc::connection_reset, (co_await peer.send("x")).error());
        EXPECT_EQ(std::errc::connection_reset, peer.end_sending().error());
        talvo::connection none = std::move(peer);
        EXPECT_EQ(std::errc::not_connected, (co_await peer.receive()).error());
        EXPECT_EQ(std::errc::not_connected, (co_await peer.send("x")).error());
    }(m_Network, m_Listener));
}

// Reading pauses at 64 KiB. The rest that has arrived comes before the failure.
TEST_F(CoConnectionTest, ASlowReceiverLosesNothingToAFailure) {
    for (const talvo::kind kind : {talvo::tcp, talvo::length, talvo::package}) {
        m_Network.SetPath({.m_dwBuffer = 300000});
        talvo::listener listener;
        EXPECT_TRUE(listener.listen(ADDRESS, kind, [](talvo::connection aPeer) -> talvo::task<> {
            for (int i = 0; i < 200; ++i)
                EXPECT_TRUE(co_await aPeer.send(std::string(1000, 'x')));
            co_await talvo::sleep(1h);
        }));
        Run([](talvo::kind aKind, CCmSimNetwork& aNetwork) -> talvo::task<> {
            auto peer = (co_await talvo::connect(ADDRESS, aKind)).value();
            co_await talvo::sleep(1s);
            aNetwork.SetPath({.m_ullCutAfter = 1});
            co_await peer.send("it breaks");
            co_await talvo::sleep(1s);
            size_t stReceived = 0;
            auto message = co_await peer.receive();
            for (; message; message = co_await peer.receive())
                stReceived += message->size();
            EXPECT_EQ(200000u, stReceived);
            EXPECT_EQ(std::errc::connection_reset, message.error());
        }(kind, m_Network));
    }
}

// The operations under way of other coroutines end from the loop.
TEST_F(CoConnectionTest, ACloseEndsTheOperationsUnderWay) {
    Listen(talvo::tcp, [](talvo::connection aPeer) -> talvo::task<> {
        co_await talvo::sleep(60s);
        EXPECT_TRUE(aPeer.set(talvo::options::tcp_keepalive, 1));
    });
    m_Network.SetPath({.m_dwBuffer = 1000});
    Run([]() -> talvo::task<> {
        auto peer = (co_await talvo::connect(ADDRESS, talvo::tcp)).value();
        const auto close = [](talvo::connection& aPeer) -> talvo::task<> {
            co_await talvo::sleep(1s);
            EXPECT_EQ(talvo::errc::already_initialized, (co_await aPeer.receive()).error());
            aPeer = talvo::connection();
        };
        const std::string strLong(100000, 'x');
        const auto end = [](talvo::connection& aPeer) -> talvo::task<> {
            EXPECT_EQ(talvo::errc::would_block, aPeer.end_sending().error());
            co_return;
        };
        const auto [received, sent, next, ended, closed] =
            co_await talvo::when_all(peer.receive(), peer.send(strLong), peer.send("behind"), end(peer), close(peer));
        EXPECT_EQ(talvo::errc::not_available, received.error());
        EXPECT_EQ(talvo::errc::not_available, sent.error());
        EXPECT_EQ(talvo::errc::not_available, next.error());
    }());
}

// A cancelled operation leaves the connection usable, and the destruction of all of it leaves nothing behind: after any step.
TEST(CoLifeTest, EveryStepMayBeTheLast) {
    const auto client = [](talvo::kind aKind) -> talvo::task<> {
        const CTracked tracked;
        auto peer = co_await talvo::connect(ADDRESS, aKind, {.timeout = 5s});
        if (!peer)
            co_return;
        talvo::task_group group;
        group.spawn([](talvo::connection& aPeer) -> talvo::task<> {
            const std::string strLong(3000, 'y');
            while (co_await aPeer.send(strLong))
                co_await talvo::sleep(20ms);
        }(*peer));
        for (int i = 0; i < 6; ++i) {
            auto message = co_await talvo::when_any(peer->receive(), talvo::sleep(1ms), Echo(talvo::connection()));
            co_await talvo::with_timeout(30ms, peer->receive());
        }
    };
    for (const talvo::kind kind : {talvo::tcp, talvo::package, talvo::reliable}) {
        bool bDone = false;
        for (int nLast = 1; !bDone; ++nLast) {
            const auto scenario = [&](CCmSimNetwork& aNetwork) {
                aNetwork.SetPath({.m_PartialSend = 0.2, .m_Cut = nLast % 3 == 0 ? 0.05 : 0, .m_dwBuffer = 2000});
                talvo::listener listener;
                talvo::task_group tasks;
                listener.listen(ADDRESS, kind, Echo);
                tasks.spawn(client(kind));
                tasks.spawn(client(kind));
                int nSteps = 0;
                aNetwork.RunUntil([&] { return ++nSteps >= nLast || (bDone = tasks.size() == 0 && nLast % 3 != 0); },
                                  CCmTimeValue(100));
            };
            const CCmSimRun run = cm_sim_run(scenario, 1 + static_cast<uint64_t>(nLast % 7));
            ASSERT_TRUE(run.m_Failures.empty()) << run.m_Failures.front() << " at step " << nLast;
            ASSERT_EQ(0, CTracked::s_nAlive) << "at step " << nLast;
        }
    }
}

}  // namespace
