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

// A transport that is connected to a plain socket.
class UdpTest : public CUdpTest {
protected:
    UdpTest() { Connect(m_Peer.Addr()); }
    void Connect(const CCmInetAddr& aAddr) {
        m_pTransport = static_cast<CCmTransportUdp*>(m_Network.Connect(aAddr, UDP).Get());
        m_Addr = Get<CCmInetAddr>(*m_pTransport, CM_OPT_TRANSPORT_LOCAL_ADDR);
    }
    void Open() { EXPECT_EQ(CM_OK, m_pTransport->OpenWithSink(&m_Sink)); }
    void SendAll(const Datagrams& aAll) {
        for (const std::string& strData : aAll)
            EXPECT_EQ(CM_OK, SendText(*m_pTransport, strData));
    }
    void PeerSends(const Datagrams& aAll) {
        for (const std::string& strData : aAll)
            m_Peer.Send(m_Addr, strData);
    }

    CPlainUdp m_Peer;
    CTestSink m_Sink;
    CCmRefPtrT<CCmTransportUdp> m_pTransport;
    CCmInetAddr m_Addr;
};

class UdpFullTest : public UdpTest {
protected:
    UdpFullTest() { Open(); }
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
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pTransport->OpenWithSink(nullptr));
    Open();
    CCmTransportParameter para;
    const std::string strPieces = Pattern(1024), strLargest = Pattern(65507);
    const auto oneByOne = [] { return 1; };
    const CCmChainPtr pPieces = MakeChain(strPieces, oneByOne), pTooMany = MakeChain(strPieces + "x", oneByOne);
    EXPECT_EQ(CM_OK, m_pTransport->SendData(*pPieces, &para));
    EXPECT_EQ(1024u, para.m_dwHaveSent);
    EXPECT_EQ(0u, pPieces->GetChainedLength());
    EXPECT_EQ(CM_OK, SendText(*m_pTransport, strLargest));
    EXPECT_EQ(CM_OK, SendText(*m_pTransport, "", &para));
    EXPECT_EQ(0u, para.m_dwHaveSent);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, SendText(*m_pTransport, strLargest + "x", &para));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pTransport->SendData(*pTooMany, &para));
    EXPECT_EQ(1025u, pTooMany->GetChainedLength());
    EXPECT_EQ(0u, m_pTransport->GetCounters().m_ullSendCalls);
    Turns();
    EXPECT_EQ(1u, m_pTransport->GetCounters().m_ullSendCalls);
    EXPECT_EQ((Datagrams{strPieces, strLargest, ""}), m_Peer.Receive());

    const Datagrams answers{"", strLargest, "x", ""};
    PeerSends(answers);
    Turns();
    EXPECT_EQ(answers, m_Sink.m_Received);
    EXPECT_EQ(0, m_Sink.m_nDisconnects);
}

TEST_F(UdpTest, WhatIsAlreadyThereSharesSystemCalls) {
    Open();
    const Datagrams all = Numbered(0, 100);
    SendAll(all);
    Turns();
    EXPECT_EQ(all, m_Peer.Receive());
    EXPECT_EQ(4u, m_pTransport->GetCounters().m_ullSendCalls);

    m_Sink.m_bEcho = TRUE;
    PeerSends(all);
    const uint64_t ullWakeUps = m_Network.Main().GetCounters().m_ullWakeUps;
    m_Network.RunUntil([&] { return m_Sink.m_nReceives == 100; });
    EXPECT_EQ(4u, m_Network.Main().GetCounters().m_ullWakeUps - ullWakeUps);
    EXPECT_EQ(all, m_Peer.Receive());
    EXPECT_EQ(4u, m_pTransport->GetCounters().m_ullReceiveCalls);
    EXPECT_EQ(8u, m_pTransport->GetCounters().m_ullSendCalls);
}

// The refusal is met by the next receive, by the next send, or before the transport was opened.
TEST_F(UdpTest, ARefusalByThePeersSystemEndsItOnce) {
    for (int nWay = 0; nWay < 3; ++nWay) {
        Connect(CPlainUdp().Addr());  // its socket is closed
        CTestSink sink;
        const auto open = [&] { EXPECT_EQ(CM_OK, m_pTransport->OpenWithSink(&sink)); };
        if (nWay < 2)
            open();
        SendAll({"anybody?"});
        if (nWay > 0) {
            m_Network.Main().ProcessTimerTick();
            SendAll({"nobody?"});
            m_Network.Main().ProcessTimerTick();
            EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, SendText(*m_pTransport, "no"));
        }
        if (nWay == 2)
            open();
        Turns();
        EXPECT_EQ("disconnect 20001", sink.Take());
        EXPECT_EQ(ECONNREFUSED, Get<CCmFailure>(*m_pTransport, CM_OPT_TRANSPORT_LAST_FAILURE).GetErrno());
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*m_pTransport, "over"));
    }
}

TEST_F(UdpFullTest, WhatWasTakenGoesOutAndOnSendComesOnce) {
    s_nRoom = 5;
    const int nTaken = Fill(*m_pTransport);
    EXPECT_EQ(Numbered(0, 5), m_Peer.Receive());
    Turns();
    MakeRoom(*m_pTransport, 3);
    EXPECT_EQ("", m_Sink.Take());
    MakeRoom(*m_pTransport);
    EXPECT_EQ("send", m_Sink.Take());
    EXPECT_EQ(Numbered(5, nTaken), m_Peer.Receive());
    // One that the system never takes is lost, and no other with it.
    s_nError = EMSGSIZE;
    SendAll({"too long", "next"});
    MakeRoom(*m_pTransport);
    EXPECT_EQ("", m_Sink.Take());
    EXPECT_EQ(Datagrams{"next"}, m_Peer.Receive());
    EXPECT_EQ(1u, m_pTransport->GetCounters().m_ullLost);
}

// An echo is sent from the buffer it was received into; what has to wait must not change when that is used again.
TEST_F(UdpFullTest, WaitingEchoesKeepTheirBytes) {
    m_Sink.m_bEcho = TRUE;
    s_nRoom = 2;
    PeerSends(Numbered(0, 8));
    Turns();
    PeerSends(Numbered(8, 16));  // refused, and lost
    Turns();
    EXPECT_EQ(16, m_Sink.m_nReceives);
    MakeRoom(*m_pTransport);
    EXPECT_EQ(Numbered(0, 8), m_Peer.Receive());
    EXPECT_EQ(1, m_Sink.m_nSends);
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
    EXPECT_EQ(CM_OK, SendText(*pTransport, ""));  // even one without a byte goes out before the end
    EXPECT_EQ(CM_OK, pTransport->Disconnect(CM_OK));
    network.RunUntil([&] { return echo.m_nReceives == 6; });
}
