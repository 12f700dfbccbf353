#include "talvo/transport/socket.h"

#include <pthread.h>

#include <csignal>

#include "tests/support/network_fixture.h"

namespace {

std::atomic<int> s_nSignals{0};

}  // namespace

TEST(SocketTest, InterruptedReceiveGoesOn) {
    struct sigaction action {
    }, before{};
    action.sa_handler = [](int) { ++s_nSignals; };  // without SA_RESTART
    sigaction(SIGUSR1, &action, &before);
    auto [fdA, fdB] = MakeTcpPair();
    CCmSocketTcp b;
    b.SetHandle(dup(fdB.Get()));
    b.Disable(CCmIPCBase::NON_BLOCK);
    std::thread reader([&] {
        char cByte = 0;
        EXPECT_EQ(1, b.Recv(&cByte, 1));
    });
    YieldUntil([&] {  // again and again: a sanitizer may keep one back until the next
        pthread_kill(reader.native_handle(), SIGUSR1);
        return s_nSignals >= 50;
    });
    fdA.Write("x");
    reader.join();
    sigaction(SIGUSR1, &before, nullptr);
}
