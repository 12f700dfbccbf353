#include <netinet/tcp.h>
#include <sys/resource.h>

#include <deque>

#include "talvo/base/memory_reuse.h"
#include "talvo/transport/tcp/acceptor_tcp.h"
#include "tests/support/network_fixture.h"

namespace {

constexpr char OUT_OF_DESCRIPTORS[] = "CCmAcceptorTcp::OnInput, accept() failed! err=";

// Acceptors of a process whose main thread is the network thread.
class AcceptorTest : public testing::Test {
protected:
    void Listen(const CCmInetAddr& aAddr = Loopback()) {
        ASSERT_EQ(CM_OK, m_pAcceptor->StartListen(&m_Sink, aAddr));
        ASSERT_EQ(CM_OK, m_pAcceptor->GetListenAddr(m_Addr));
    }

    CTestNetwork m_Network{CCmThreadManager::NETWORK_THREAD_MAIN};
    CTestConnectSink m_Sink;
    CCmRefPtrT<CCmAcceptorTcp> m_pAcceptor{new CCmAcceptorTcp};
    CCmInetAddr m_Addr;
};

// Ends the process: 0 when the acceptor neither spun nor died without descriptors.
void RunOutOfDescriptors() {
    CTestNetwork network(CCmThreadManager::NETWORK_THREAD_MAIN);
    CCmFakeClock clock;
    CCmTraceCapture trace;
    CTestConnectSink sink;
    CCmInetAddr addr;
    const auto pAcceptor = network.Listen(sink, addr);
    const CTestFd clients[3] = {ConnectPlain(addr), ConnectPlain(addr), ConnectPlain(addr)};
    const rlimit limit{64, 64};
    EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    std::vector<CTestFd> ballast;
    for (CTestFd fd(dup(0)); fd.Get() != -1; fd = CTestFd(dup(0)))
        ballast.push_back(std::move(fd));
    network.RunUntil([&] { return trace.Contains(OUT_OF_DESCRIPTORS); });

    const uint64_t ullReports = network.Main().GetCounters().m_ullReports;
    for (int i = 0; i < 20; ++i)
        network.RunPosted();
    EXPECT_EQ(ullReports, network.Main().GetCounters().m_ullReports) << "it spins";
    const auto advance = [&](int aTicks) {
        for (int i = 0; i < aTicks; ++i) {
            clock.Advance(CCmTimeValue(0, 110000));
            network.RunPosted();
        }
    };
    advance(8);  // within the second: tries again, and says nothing
    EXPECT_LT(ullReports, network.Main().GetCounters().m_ullReports) << "it has given up";
    EXPECT_EQ(1u, trace.Count(OUT_OF_DESCRIPTORS)) << "more than a line a second";
    advance(2);
    EXPECT_EQ(2u, trace.Count(OUT_OF_DESCRIPTORS)) << "the next second has no line";
    EXPECT_EQ(0u, sink.Count());
    ballast.resize(ballast.size() - 3);
    advance(10);
    EXPECT_EQ(3u, sink.Count()) << "does not accept again";
    _exit(testing::Test::HasFailure());
}

}  // namespace

TEST_F(AcceptorTest, AStopEndsOnlyTheListeningAndAStartGoesOnAtOnce) {
    Listen();
    std::vector<CTestFd> clients;
    for (int i = 0; i < 10; ++i)
        clients.push_back(ConnectPlain(m_Addr));
    m_Network.RunUntil([&] { return m_Sink.Count() == 10; });
    clients.push_back(ConnectPlain(m_Addr));
    EXPECT_EQ(CM_OK, m_pAcceptor->StopListen(CM_OK));
    m_Network.RunPosted();
    EXPECT_EQ(10u, m_Sink.Count());
    EXPECT_EQ(CM_OK, SendText(*m_Sink.m_Transports[9], "hello"));
    YieldUntil([&] { return clients[9].Read() == "hello"; });
    // A transport without references is closed. This side closes first: its port waits.
    m_Sink.m_Transports.clear();
    std::string strData;
    m_Network.RunUntil([&] { return ReadToEnd(clients[0], strData); });
    Listen(m_Addr);
    m_Sink.m_Indicated = [&] {
        EXPECT_EQ(CM_OK, m_pAcceptor->StopListen(CM_OK));
        m_pAcceptor.Reset();
    };
    const CTestFd again = ConnectPlain(m_Addr), tooLate = ConnectPlain(m_Addr);
    m_Network.RunUntil([&] { return m_Sink.Count() == 11; });
    m_Network.RunPosted();
    EXPECT_EQ(11u, m_Sink.Count());
}

TEST_F(AcceptorTest, ABurstTakesFewTurnsOfSixteenAtMostAndAStopEndsIt) {
    Listen();
    std::vector<CTestFd> clients;
    const auto connect = [&](size_t aCount) {
        for (size_t n = 0; n < aCount; ++n)
            clients.push_back(ConnectPlain(m_Addr));
        YieldUntil([&] {
            tcp_info info{};
            socklen_t length = sizeof info;
            EXPECT_EQ(0, getsockopt(m_pAcceptor->GetHandle(), IPPROTO_TCP, TCP_INFO, &info, &length));
            return info.tcpi_unacked == aCount;
        });
    };
    const auto turn = [&] {
        EXPECT_EQ(CM_OK, m_Network.Main().RunOnce(&CCmTimeValue::s_tvZero));
        return m_Sink.Count();
    };
    turn();
    turn();
    connect(40);
    for (const size_t stAccepted : {1u, 17u, 33u, 40u})
        EXPECT_EQ(stAccepted, turn());
    turn();
    connect(20);
    m_Sink.m_Indicated = [&] {
        if (m_Sink.Count() != 45)
            return;
        EXPECT_EQ(CM_OK, m_pAcceptor->StopListen(CM_OK));
        Listen();  // perhaps with the same descriptor
    };
    for (const size_t stAccepted : {41u, 45u, 45u})
        EXPECT_EQ(stAccepted, turn());
}

// The reads are tried less often after some in vain, so not every connection has one.
TEST_F(AcceptorTest, BytesThatWaitAreReadInTheTurnOfTheAccept) {
    Listen();
    std::deque<CTestSink> sinks;
    m_Sink.m_Indicated = [&] { sinks.emplace_back(*m_Sink.m_Transports.back()); };
    BOOL bRead = FALSE;
    for (size_t n = 1; n <= 40 && !bRead; ++n) {
        const CTestFd client = ConnectPlain(m_Addr);
        client.Write("hello");
        while (m_Sink.Count() < n)
            EXPECT_EQ(CM_OK, m_Network.Main().RunOnce(&CCmTimeValue::s_tvZero));
        bRead = sinks.back().m_strReceived == "hello";
    }
    EXPECT_TRUE(bRead);
}

TEST(AcceptorDescriptorTest, NeitherSpinsNorDies) {
    if (!talvo::REUSES_MEMORY)
        GTEST_SKIP() << "the address sanitizer needs descriptors itself to look at an object";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunOutOfDescriptors(), testing::ExitedWithCode(0), "");
}
