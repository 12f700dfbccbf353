// On loopback a socket's send buffer never fills up, so the system calls are made to say that it has.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/support/blocks.h"
#include "tests/support/udp_helpers.h"

namespace {

constexpr DWORD UDP = CCmConnectionManager::CTYPE_UDP;

int s_nRoom = -1;  // datagrams that still fit; -1: any number
int s_nError = 0;  // fails the next call

// The number of datagrams that the system takes; 0: errno is set.
unsigned Take(unsigned aCount) {
    errno = s_nError != 0 ? s_nError : EAGAIN;
    if (std::exchange(s_nError, 0) != 0)
        return 0;
    const unsigned uTaken = s_nRoom < 0 ? aCount : std::min(aCount, static_cast<unsigned>(s_nRoom));
    s_nRoom -= s_nRoom < 0 ? 0 : static_cast<int>(uTaken);
    return uTaken;
}

}  // namespace

// These stand in for the system's, also inside the library.
extern "C" [[gnu::visibility("default")]] ssize_t sendto(int aFd, const void* aData, size_t aSize, int aFlags,
                                                         const sockaddr* aTo, socklen_t aLength) {
    return Take(1) == 0 ? -1 : syscall(SYS_sendto, aFd, aData, aSize, aFlags, aTo, aLength);
}

extern "C" [[gnu::visibility("default")]] int sendmmsg(int aFd, mmsghdr* aMessages, unsigned aCount, int aFlags) {
    const unsigned uTaken = Take(aCount);
    return uTaken == 0 ? -1 : static_cast<int>(syscall(SYS_sendmmsg, aFd, aMessages, uTaken, aFlags));
}

namespace {

class UdpFullTest : public UdpTest {
protected:
    ~UdpFullTest() override { s_nRoom = -1; }

    // Sends numbers until one is refused: how many were taken.
    static int Fill(ICmTransport& aTransport) {
        int nTaken = 0;
        while (nTaken < 1000 && SendText(aTransport, std::to_string(nTaken)) == CM_OK)
            ++nTaken;
        EXPECT_EQ(CM_ERROR_PARTIAL_DATA, SendText(aTransport, "refused"));
        return nTaken;
    }

    // The system tells of room when the size of the buffer is set.
    void MakeRoom(ICmTransport& aTransport, int aRoom = -1) {
        s_nRoom = aRoom;
        Set(aTransport, CM_OPT_TRANSPORT_SNDBUF, 200000);
        Turns();
    }
};

}  // namespace

TEST_F(UdpTest, EachSendIsOneDatagram) {
    CPlainUdp peer;
    const auto pTransport = Connect(peer.Addr());
    ASSERT_TRUE(pTransport);
    CTestSink sink;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pTransport->OpenWithSink(nullptr));
    EXPECT_EQ(CM_OK, pTransport->OpenWithSink(&sink));

    CCmTransportParameter para;
    const std::string strPieces = Pattern(1024), strLargest = Pattern(65507);
    const auto oneByOne = [] { return 1; };
    const CCmChainPtr pPieces = MakeChain(strPieces, oneByOne), pTooMany = MakeChain(strPieces + "x", oneByOne);
    EXPECT_EQ(CM_OK, pTransport->SendData(*pPieces, &para));
    EXPECT_EQ(1024u, para.m_dwHaveSent);
    EXPECT_EQ(0u, pPieces->GetChainedLength());
    EXPECT_EQ(CM_OK, SendText(*pTransport, strLargest));
    EXPECT_EQ(CM_OK, SendText(*pTransport, "", &para));
    EXPECT_EQ(0u, para.m_dwHaveSent);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, SendText(*pTransport, strLargest + "x", &para));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pTransport->SendData(*pTooMany, &para));
    EXPECT_EQ(1025u, pTooMany->GetChainedLength());
    EXPECT_EQ(0u, pTransport->GetCounters().m_ullSendCalls);
    Turns();
    EXPECT_EQ(1u, pTransport->GetCounters().m_ullSendCalls);
    EXPECT_EQ((Datagrams{strPieces, strLargest, ""}), peer.Receive());

    for (const std::string& strData : {std::string(), strLargest, std::string("x"), std::string()})
        peer.Send(peer.From(), strData);
    Turns();
    EXPECT_EQ((Datagrams{"", strLargest, "x", ""}), sink.m_Received);
    EXPECT_EQ(0, sink.m_nDisconnects);
}

TEST_F(UdpTest, WhatIsAlreadyThereSharesSystemCalls) {
    CPlainUdp peer;
    const auto pTransport = Connect(peer.Addr());
    CTestSink sink(*pTransport);
    for (const std::string& strData : Numbered(0, 100))
        EXPECT_EQ(CM_OK, SendText(*pTransport, strData));
    Turns();
    EXPECT_EQ(Numbered(0, 100), peer.Receive());
    EXPECT_EQ(4u, pTransport->GetCounters().m_ullSendCalls);

    sink.m_bEcho = TRUE;
    for (const std::string& strData : Numbered(0, 100))
        peer.Send(peer.From(), strData);
    const uint64_t ullWakeUps = m_Network.Main().GetCounters().m_ullWakeUps;
    m_Network.RunUntil([&] { return sink.m_Received.size() == 100; });
    EXPECT_EQ(4u, m_Network.Main().GetCounters().m_ullWakeUps - ullWakeUps);
    EXPECT_EQ(Numbered(0, 100), peer.Receive());
    EXPECT_EQ(4u, pTransport->GetCounters().m_ullReceiveCalls);
    EXPECT_EQ(8u, pTransport->GetCounters().m_ullSendCalls);
}

// The refusal is met by the next receive, by the next send, or before the transport was opened.
TEST_F(UdpTest, ARefusalByThePeersSystemEndsItOnce) {
    for (int nWay = 0; nWay < 3; ++nWay) {
        const auto pTransport = Connect(CPlainUdp().Addr());  // nobody receives there any more
        CTestSink sink;
        const auto open = [&] { EXPECT_EQ(CM_OK, pTransport->OpenWithSink(&sink)); };
        if (nWay < 2)
            open();
        EXPECT_EQ(CM_OK, SendText(*pTransport, "anybody?"));
        if (nWay > 0) {
            m_Network.Main().ProcessTimerTick();
            EXPECT_EQ(CM_OK, SendText(*pTransport, "nobody?"));
            m_Network.Main().ProcessTimerTick();
            EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, SendText(*pTransport, "no"));
        }
        if (nWay == 2)
            open();
        Turns();
        EXPECT_EQ("disconnect 20001", sink.Take());
        EXPECT_EQ(ECONNREFUSED, Get<CCmFailure>(*pTransport, CM_OPT_TRANSPORT_LAST_FAILURE).GetErrno());
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*pTransport, "over"));
    }
}

TEST_F(UdpTest, APauseLosesNothing) {
    CPlainUdp peer;
    const auto pTransport = Connect(peer.Addr());
    CTestSink sink(*pTransport);
    sink.m_Receive = [&] { Set(*pTransport, CM_OPT_TRANSPORT_PAUSE_READING, BOOL{sink.m_nReceives % 10 == 3}); };
    const auto addr = Get<CCmInetAddr>(*pTransport, CM_OPT_TRANSPORT_LOCAL_ADDR);
    for (const std::string& strData : Numbered(0, 50))
        peer.Send(addr, strData);
    Turns();
    EXPECT_EQ(Numbered(0, 3), sink.m_Received);
    for (int nStop = 13; nStop < 50; nStop += 10) {
        Set(*pTransport, CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
        EXPECT_EQ(Numbered(0, nStop - 10), sink.m_Received);  // nothing from inside the call
        Turns();
        EXPECT_EQ(Numbered(0, nStop), sink.m_Received);
    }
}

TEST_F(UdpTest, TheSinkMayEndItInTheMiddleOfABatch) {
    CPlainUdp peer;
    for (const BOOL bRelease : {FALSE, TRUE}) {
        auto pTransport = Connect(peer.Addr());
        CTestSink sink(*pTransport);
        const auto addr = Get<CCmInetAddr>(*pTransport, CM_OPT_TRANSPORT_LOCAL_ADDR);
        for (const std::string& strData : Numbered(0, 10))
            peer.Send(addr, strData);
        sink.m_bEcho = TRUE;
        sink.m_Receive = [&] {
            if (sink.m_nReceives == 3 && bRelease)
                pTransport.Reset();
            else if (sink.m_nReceives == 3)
                pTransport->Disconnect(CM_OK);
        };
        Turns();
        EXPECT_EQ(3, sink.Upcalls());
        EXPECT_EQ(Numbered(0, 3), peer.Receive());  // what was taken went out
    }
}

TEST_F(UdpTest, OptionsAnswerForDatagrams) {
    CCmTraceCapture trace;
    CPlainUdp peer;
    const auto pTransport = Connect(peer.Addr());
    auto addr = Get<CCmInetAddr>(*pTransport, CM_OPT_TRANSPORT_LOCAL_ADDR);
    peer.Send(addr, "12345");
    EXPECT_EQ(5u, Get<DWORD>(*pTransport, CM_OPT_TRANSPORT_FIO_NREAD));
    EXPECT_TRUE(Get<BOOL>(*pTransport, CM_OPT_TRANSPORT_SOCK_ALIVE));
    Set(*pTransport, CM_OPT_TRANSPORT_TOS, DWORD{0x10});
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pTransport->GetOption(102, &addr));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pTransport->SetOption(CM_OPT_TRANSPORT_LOCAL_ADDR, &addr));
    EXPECT_TRUE(trace.Contains("CCmTransportUdp::GetOption, unknow aCommand=102 aArg="));
    EXPECT_TRUE(trace.Contains("CCmTransportUdp::SetOption, unknow aCommand=104 aArg="));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pTransport->SetOption(CM_OPT_TRANSPORT_TOS, nullptr));

    HANDLE fd = Get<HANDLE>(*pTransport, CM_OPT_TRANSPORT_FD);
    const CTestFd detached(fd);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pTransport->SetOption(CM_OPT_TRANSPORT_FD, &fd));
    Set(*pTransport, CM_OPT_TRANSPORT_FD, CM_INVALID_HANDLE);
    BOOL bValue = TRUE;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pTransport->GetOption(CM_OPT_TRANSPORT_SOCK_ALIVE, &bValue));
    EXPECT_FALSE(bValue);
    EXPECT_EQ("12345", detached.Read());
}

TEST_F(UdpFullTest, WhatWasTakenGoesOutAndOnSendComesOnce) {
    CPlainUdp peer;
    const auto pTransport = Connect(peer.Addr());
    CTestSink sink(*pTransport);
    s_nRoom = 5;
    const int nTaken = Fill(*pTransport);
    EXPECT_EQ(Numbered(0, 5), peer.Receive());
    Turns();
    MakeRoom(*pTransport, 3);
    EXPECT_EQ("", sink.Take());
    MakeRoom(*pTransport);
    EXPECT_EQ("send", sink.Take());
    EXPECT_EQ(Numbered(5, nTaken), peer.Receive());
    // One that the system never takes is lost, and no other with it.
    s_nError = EMSGSIZE;
    for (const char* szText : {"too long", "next"})
        EXPECT_EQ(CM_OK, SendText(*pTransport, szText));
    MakeRoom(*pTransport);
    EXPECT_EQ("", sink.Take());
    EXPECT_EQ(Datagrams{"next"}, peer.Receive());
    EXPECT_EQ(1u, pTransport->GetCounters().m_ullLost);
}

// An echo is sent from the buffer it was received into; what has to wait must not change when that is used again.
TEST_F(UdpFullTest, WaitingEchoesKeepTheirBytes) {
    CPlainUdp peer;
    const auto pTransport = Connect(peer.Addr());
    CTestSink sink(*pTransport);
    sink.m_bEcho = TRUE;
    const auto addr = Get<CCmInetAddr>(*pTransport, CM_OPT_TRANSPORT_LOCAL_ADDR);
    s_nRoom = 2;
    for (const std::string& strData : Numbered(0, 8))
        peer.Send(addr, strData);
    Turns();
    for (const std::string& strData : Numbered(8, 16))
        peer.Send(addr, strData);  // refused, and lost
    Turns();
    EXPECT_EQ(16, sink.m_nReceives);
    MakeRoom(*pTransport);
    EXPECT_EQ(Numbered(0, 8), peer.Receive());
    EXPECT_EQ(1, sink.m_nSends);
}

TEST_F(UdpFullTest, EveryRefusedPeerGetsItsTurn) {
    CTestConnectSink accepted;
    CCmInetAddr addr;
    const auto pAcceptor = m_Network.Listen(accepted, addr, UDP);
    CPlainUdp peers[4];
    CTestSink sinks[4];
    for (const CPlainUdp& peer : peers)
        peer.Send(addr, "hello");
    Turns();
    auto& transports = accepted.m_Transports;
    ASSERT_EQ(4u, transports.size());
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(CM_OK, transports[i]->OpenWithSink(&sinks[i]));
    s_nRoom = 0;
    Fill(*transports[0]);
    for (int i = 1; i < 4; ++i)
        EXPECT_EQ(CM_ERROR_PARTIAL_DATA, SendText(*transports[i], "y"));
    transports[3].Reset();  // gets no upcall
    const auto expectSends = [&](const std::vector<int>& aCounts) {
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(aCounts[i], sinks[i].m_nSends) << i;
    };

    // The first fills the socket again at once: the others come before it then.
    sinks[0].m_Send = [&] {
        s_nRoom = 0;
        Fill(*transports[0]);
    };
    MakeRoom(*transports[1]);
    expectSends({1, 0, 0, 0});
    sinks[0].m_Send = [] {};
    sinks[1].m_Send = [&] { EXPECT_EQ(CM_OK, SendText(*transports[1], "y")); };
    MakeRoom(*transports[1]);
    expectSends({2, 1, 1, 0});
    EXPECT_EQ(Datagrams{"y"}, peers[1].Receive());
}

// Between user threads, through the proxies.
TEST(UdpProxyTest, EachSendStaysOneDatagram) {
    CTestNetwork network;
    CTestSink echo;
    echo.m_bEcho = TRUE;
    CTestConnectSink accepted;
    accepted.m_Indicated = [&] { EXPECT_EQ(CM_OK, accepted.m_Transports.back()->OpenWithSink(&echo)); };
    CCmInetAddr addr;
    const auto pAcceptor = network.Listen(accepted, addr, UDP);
    const auto pTransport = network.Connect(addr, UDP);
    CTestSink sink(*pTransport);
    EXPECT_EQ(2u, Get<DWORD>(*pTransport, CM_OPT_TRANSPORT_TRAN_TYPE));

    const Datagrams all{"a", "", Pattern(65507), "", "bc"};
    CCmTransportParameter para;
    for (const std::string& strData : all) {
        EXPECT_EQ(CM_OK, SendText(*pTransport, strData, &para));
        EXPECT_EQ(strData.size(), para.m_dwHaveSent);
    }
    EXPECT_EQ(CM_ERROR_INVALID_ARG, SendText(*pTransport, Pattern(65508), &para));
    EXPECT_EQ(0u, para.m_dwHaveSent);
    network.RunUntil([&] { return sink.m_nReceives == 5; });
    EXPECT_EQ(all, echo.m_Received);
    EXPECT_EQ(all, sink.m_Received);
    EXPECT_EQ(1u, accepted.Count());
}

TEST(UdpProxyTest, ABurstTakesFewCallsAndGoesOutBeforeTheEnd) {
    CTestNetwork network;
    CPlainUdp peer;
    const auto pTransport = network.Connect(peer.Addr(), UDP);
    CTestSink sink(*pTransport);
    auto* pInner = Get<ICmTransport*>(*pTransport, CM_OPT_TRANSPORT_INNER_TRANSPORT);
    CCmEventThread busy;
    network.NetworkLink().Post([&] { busy.Wait(); });  // until all are waiting
    Datagrams expected = Numbered(0, 200);
    expected.push_back("");
    for (const std::string& strData : expected)
        EXPECT_EQ(CM_OK, SendText(*pTransport, strData));
    busy.Signal();
    network.InNetwork([&] {
        const uint64_t ullCalls = static_cast<CCmTransportUdp*>(pInner)->GetCounters().m_ullSendCalls;
        EXPECT_TRUE(ullCalls > 0 && ullCalls <= 7) << ullCalls;
    });
    EXPECT_EQ(CM_OK, SendText(*pTransport, ""));  // even one without a byte goes out before the end
    EXPECT_EQ(CM_OK, pTransport->Disconnect(CM_OK));
    expected.push_back("");
    Datagrams received;
    YieldUntil([&] {
        const Datagrams more = peer.Receive();
        received.insert(received.end(), more.begin(), more.end());
        return received.size() >= expected.size();
    });
    EXPECT_EQ(expected, received);
}
