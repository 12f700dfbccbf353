// On loopback a socket's send buffer never fills up, so the system call is made to say that it has.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "talvo/transport/udp/acceptor_udp.h"
#include "tests/support/udp_helpers.h"

namespace {

int s_nRoom = -1;  // datagrams that still fit; -1: any number

}  // namespace

// These stand in for the system's, also inside the library.
extern "C" [[gnu::visibility("default")]] ssize_t sendto(int aFd, const void* aData, size_t aSize, int aFlags,
                                                         const sockaddr* aTo, socklen_t aLength) {
    if (s_nRoom == 0) {
        errno = EAGAIN;
        return -1;
    }
    s_nRoom -= s_nRoom > 0;
    return syscall(SYS_sendto, aFd, aData, aSize, aFlags, aTo, aLength);
}

extern "C" [[gnu::visibility("default")]] int sendmmsg(int aFd, mmsghdr* aMessages, unsigned aCount, int aFlags) {
    if (s_nRoom == 0) {
        errno = EAGAIN;
        return -1;
    }
    if (s_nRoom > 0)
        aCount = std::min(aCount, static_cast<unsigned>(s_nRoom));
    const long lSent = syscall(SYS_sendmmsg, aFd, aMessages, aCount, aFlags);
    if (s_nRoom > 0 && lSent > 0)
        s_nRoom -= static_cast<int>(lSent);
    return static_cast<int>(lSent);
}

namespace {

class UdpFullTest : public UdpTest {
protected:
    ~UdpFullTest() override { s_nRoom = -1; }

    // Sends numbers until one is refused: how many were taken.
    static int Fill(ICmTransport& aTransport) {
        int nTaken = 0;
        CmResult rv = CM_OK;
        while (nTaken < 1000 && (rv = SendText(aTransport, std::to_string(nTaken))) == CM_OK)
            ++nTaken;
        EXPECT_EQ(CM_ERROR_PARTIAL_DATA, rv);
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

TEST_F(UdpFullTest, WhatWasTakenGoesOutAndOnSendComesOnce) {
    CPlainUdp peer;
    const auto pTransport = Connect(peer.Addr());
    CTestSink sink(*pTransport);
    s_nRoom = 5;
    const int nTaken = Fill(*pTransport);
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, SendText(*pTransport, "again"));
    EXPECT_EQ(Numbered(0, 5), peer.Receive());
    Turns();
    EXPECT_EQ(0, sink.m_nSends);
    MakeRoom(*pTransport, 3);
    EXPECT_EQ(0, sink.m_nSends);
    MakeRoom(*pTransport);
    EXPECT_EQ(1, sink.m_nSends);
    EXPECT_EQ(Numbered(5, nTaken), peer.Receive());
    EXPECT_EQ(CM_OK, SendText(*pTransport, "next"));
    MakeRoom(*pTransport);
    EXPECT_EQ(1, sink.m_nSends);
    EXPECT_EQ(Datagrams{"next"}, peer.Receive());
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
    CTestConnectSink connectSink;
    CCmRefPtrT<CCmAcceptorUdp> pAcceptor(new CCmAcceptorUdp);
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&connectSink, Loopback()));
    CCmInetAddr addr;
    EXPECT_EQ(CM_OK, pAcceptor->GetListenAddr(addr));
    CPlainUdp peers[4];
    CTestSink sinks[4];
    for (const CPlainUdp& peer : peers)
        peer.Send(addr, "hello");
    Turns();
    ASSERT_EQ(4u, connectSink.Count());
    auto& transports = connectSink.m_Transports;
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(CM_OK, transports[i]->OpenWithSink(&sinks[i]));
    s_nRoom = 0;
    Fill(*transports[0]);
    for (int i = 1; i < 4; ++i)
        EXPECT_EQ(CM_ERROR_PARTIAL_DATA, SendText(*transports[i], "y"));
    transports[3].Reset();  // hears nothing

    // The first fills the socket again at once: the others come before it then.
    sinks[0].m_Send = [&] {
        s_nRoom = 0;
        Fill(*transports[0]);
    };
    MakeRoom(*transports[1]);
    EXPECT_EQ(1, sinks[0].m_nSends);
    EXPECT_EQ(0, sinks[1].m_nSends);
    sinks[0].m_Send = [] {};
    sinks[1].m_Send = [&] { EXPECT_EQ(CM_OK, SendText(*transports[1], "y")); };
    MakeRoom(*transports[1]);
    EXPECT_EQ(2, sinks[0].m_nSends);
    EXPECT_EQ(1, sinks[1].m_nSends);
    EXPECT_EQ(1, sinks[2].m_nSends);
    EXPECT_EQ(0, sinks[3].m_nSends);
    Turns();
    EXPECT_EQ(Datagrams{"y"}, peers[1].Receive());
}
