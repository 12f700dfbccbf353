#include "talvo/transport/socket.h"

#include <fcntl.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>

#include "tests/support/network_fixture.h"
#include "tests/support/trace_capture.h"

namespace {

int IntOption(const CCmSocketBase& aSocket, int aName) {
    int nValue = -1;
    int nLength = sizeof nValue;
    EXPECT_EQ(0, aSocket.GetOption(SOL_SOCKET, aName, &nValue, &nLength));
    return nValue;
}

std::atomic<int> s_nSignals{0};

}  // namespace

TEST(SocketTest, OpenReplacesBindsAndSetsFlags) {
    CCmSocketTcp tcp;
    ASSERT_EQ(0, tcp.Open(TRUE));
    EXPECT_EQ(1, IntOption(tcp, SO_REUSEADDR));
    EXPECT_EQ(FD_CLOEXEC, fcntl(tcp.GetHandle(), F_GETFD));
    const HANDLE fdFirst = tcp.GetHandle();
    ASSERT_EQ(0, tcp.Open(FALSE, CCmInetAddr("127.0.0.1", 0)));
    EXPECT_EQ(fdFirst, tcp.GetHandle()) << "the first was not closed";
    EXPECT_EQ(0, IntOption(tcp, SO_REUSEADDR));
    ASSERT_EQ(0, tcp.Enable(CCmIPCBase::NON_BLOCK));
    EXPECT_TRUE(fcntl(tcp.GetHandle(), F_GETFL) & O_NONBLOCK);
    ASSERT_EQ(0, tcp.Disable(CCmIPCBase::NON_BLOCK));
    EXPECT_FALSE(fcntl(tcp.GetHandle(), F_GETFL) & O_NONBLOCK);

    CCmInetAddr addr;
    ASSERT_EQ(0, tcp.GetLocalAddr(addr));
    CCmSocketTcp second;
    EXPECT_EQ(-1, second.Open(FALSE, addr));
    EXPECT_EQ(EADDRINUSE, errno);
    EXPECT_EQ(CM_INVALID_HANDLE, second.GetHandle());
    CCmSocketUdp udp;
    EXPECT_EQ(-1, udp.Open(CCmInetAddr("192.0.2.1", 0)));
    EXPECT_EQ(EADDRNOTAVAIL, errno);
    EXPECT_EQ(CM_INVALID_HANDLE, udp.GetHandle());
}

TEST(SocketTest, InterruptedReceiveGoesOn) {
    struct sigaction action {
    }, before{};
    action.sa_handler = [](int) { ++s_nSignals; };  // without SA_RESTART
    sigaction(SIGUSR1, &action, &before);
    auto [fdA, fdB] = MakeTcpPair();
    CCmSocketTcp b;
    b.SetHandle(dup(fdB.Get()));
    b.Disable(CCmIPCBase::NON_BLOCK);
    int nReceived = 0;
    std::thread reader([&] {
        char cByte = 0;
        nReceived = b.Recv(&cByte, 1);
    });
    YieldUntil([&] {  // again and again: a sanitizer may keep one back until the next
        pthread_kill(reader.native_handle(), SIGUSR1);
        return s_nSignals >= 50;
    });
    fdA.Write("x");
    reader.join();
    EXPECT_EQ(1, nReceived);
    sigaction(SIGUSR1, &before, nullptr);
}
