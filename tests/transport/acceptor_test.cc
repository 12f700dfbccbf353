#include <sys/resource.h>

#include "talvo/transport/acceptor_tcp.h"
#include "tests/support/fake_clock.h"
#include "tests/support/network_fixture.h"
#include "tests/support/trace_capture.h"

namespace {

const CCmInetAddr LOOPBACK("127.0.0.1", 0);
constexpr char OUT_OF_DESCRIPTORS[] = "CCmAcceptorTcp::OnInput, accept() failed! err=";

// Acceptors of a process whose main thread is the network thread.
class AcceptorTest : public testing::Test {
protected:
    void Listen(const CCmInetAddr& aAddr = LOOPBACK) {
        ASSERT_EQ(CM_OK, m_pAcceptor->StartListen(&m_Sink, aAddr));
        ASSERT_EQ(CM_OK, m_pAcceptor->GetListenAddr(m_Addr));
    }
    void Settle() { m_Network.RunPosted(); }

    CTestNetwork m_Network{CCmThreadManager::NETWORK_THREAD_MAIN};
    CTestConnectSink m_Sink;
    CCmRefPtrT<CCmAcceptorTcp> m_pAcceptor{new CCmAcceptorTcp};
    CCmInetAddr m_Addr;
};

struct CChildCheck {
    void operator()(BOOL aHolds, const char* aWhat) {
        if (!aHolds) {
            fprintf(stderr, "failed: %s\n", aWhat);
            _exit(1);
        }
    }
};

// Ends the process: 0 when the acceptor neither spun nor died without descriptors.
void RunOutOfDescriptors() {
    CChildCheck check;
    CTestNetwork network(CCmThreadManager::NETWORK_THREAD_MAIN);
    CCmFakeClock clock;
    CCmTraceCapture trace;
    CTestConnectSink sink;
    CCmRefPtrT<CCmAcceptorTcp> pAcceptor(new CCmAcceptorTcp);
    CCmInetAddr addr;
    check(pAcceptor->StartListen(&sink, LOOPBACK) == CM_OK && pAcceptor->GetListenAddr(addr) == CM_OK, "listen");
    CTestFd clients[3] = {MakeTcpSocket(), MakeTcpSocket(), MakeTcpSocket()};
    const rlimit limit{64, 64};
    check(setrlimit(RLIMIT_NOFILE, &limit) == 0, "limit");
    std::vector<CTestFd> ballast;
    for (CTestFd fd(dup(0)); fd.Get() != -1; fd = CTestFd(dup(0)))
        ballast.push_back(std::move(fd));
    for (const CTestFd& client : clients)
        StartConnect(client, addr);
    network.RunUntil([&] { return trace.Count(OUT_OF_DESCRIPTORS) > 0; });

    const uint64_t ullReports = network.Main().GetCounters().m_ullReports;
    for (int i = 0; i < 20; ++i)
        network.RunPosted();
    check(network.Main().GetCounters().m_ullReports == ullReports, "it spins");
    for (int i = 0; i < 8; ++i) {  // within the second: tries again, and says nothing
        clock.Advance(CCmTimeValue(0, 110000));
        network.RunPosted();
    }
    check(network.Main().GetCounters().m_ullReports > ullReports, "it has given up");
    check(trace.Count(OUT_OF_DESCRIPTORS) == 1, "more than a line a second");
    clock.Advance(CCmTimeValue(1));
    network.RunPosted();
    check(trace.Count(OUT_OF_DESCRIPTORS) == 2, "the next second has no line");
    check(sink.Count() == 0, "no indication yet");

    ballast.resize(ballast.size() - 3);
    for (int i = 0; i < 10 && sink.Count() < 3; ++i) {
        clock.Advance(CCmTimeValue(0, 110000));
        network.RunPosted();
    }
    check(sink.Count() == 3, "accepts again");
    _exit(0);
}

}  // namespace

TEST_F(AcceptorTest, RestartsOnTheSamePortAtOnce) {
    Listen();
    const CTestFd client = ConnectPlain(m_Addr);
    m_Network.RunUntil([&] { return m_Sink.Count() == 1; });
    CTestSink sink;
    m_Sink.m_Transports[0]->OpenWithSink(&sink);
    m_Sink.m_Transports[0]->Disconnect(CM_OK);  // this side closes first: it is the one that has to wait
    EXPECT_EQ(CM_OK, m_pAcceptor->StopListen(CM_OK));
    Listen(m_Addr);
    const CTestFd again = ConnectPlain(m_Addr);
    m_Network.RunUntil([&] { return m_Sink.Count() == 2; });
    EXPECT_EQ(m_pAcceptor.Get(), m_Sink.m_pLastId);
}

TEST_F(AcceptorTest, TenAtOnceAndNoneAfterStop) {
    Listen();
    std::vector<CTestFd> clients;
    for (int i = 0; i < 10; ++i)
        clients.push_back(ConnectPlain(m_Addr));
    m_Network.RunUntil([&] { return m_Sink.Count() == 10; });
    Settle();
    EXPECT_EQ(10u, m_Sink.Count());
    // Those that were handed up live on when the listener has gone.
    clients.push_back(ConnectPlain(m_Addr));
    EXPECT_EQ(CM_OK, m_pAcceptor->StopListen(CM_OK));
    Settle();
    EXPECT_EQ(10u, m_Sink.Count());
    CTestSink sinks[10];
    for (size_t i = 0; i < 10; ++i)
        EXPECT_EQ(CM_OK, m_Sink.m_Transports[i]->OpenWithSink(&sinks[i]));
    for (size_t i = 0; i < 10; ++i)
        clients[i].Write("hello");
    m_Network.RunUntil([&] {
        return std::all_of(std::begin(sinks), std::end(sinks), [](const CTestSink& a) { return a.m_strReceived == "hello"; });
    });
}

TEST_F(AcceptorTest, UnkeptTransportIsClosed) {
    m_Sink.m_bKeep = FALSE;
    Listen();
    const CTestFd client = ConnectPlain(m_Addr);
    std::string strData;
    m_Network.RunUntil([&] { return m_Sink.Count() == 1 && ReadToEnd(client, strData); });
    EXPECT_EQ("", strData);
}

TEST_F(AcceptorTest, StopAndReleaseInsideTheIndication) {
    Listen();
    m_Sink.m_Indicated = [&] {
        EXPECT_EQ(CM_OK, m_pAcceptor->StopListen(CM_OK));
        m_pAcceptor.Reset();
    };
    const CTestFd first = ConnectPlain(m_Addr);
    const CTestFd second = ConnectPlain(m_Addr);
    m_Network.RunUntil([&] { return m_Sink.Count() > 0; });
    Settle();
    EXPECT_EQ(1u, m_Sink.Count());
    CTestSink sink;
    EXPECT_EQ(CM_OK, m_Sink.m_Transports[0]->OpenWithSink(&sink));
}

TEST(AcceptorDescriptorTest, NeitherSpinsNorDies) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer needs descriptors itself to look at an object";
#endif
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunOutOfDescriptors(), testing::ExitedWithCode(0), "");
}
