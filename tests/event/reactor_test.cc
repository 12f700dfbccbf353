#include <gtest/gtest.h>

#include "tests/support/event_helpers.h"
#include "tests/support/event_socket.h"
#include "tests/support/fake_clock.h"
#include "tests/support/trace_capture.h"

namespace {

using H = ACmEventHandler;

class ReactorTest : public testing::Test {
protected:
    ReactorTest() { EXPECT_EQ(CM_OK, m_Reactor.Open()); }

    // One turn that does not sleep.
    void Turn() { EXPECT_EQ(CM_OK, m_Reactor.RunOnce(&CCmTimeValue::s_tvZero)); }
    void Turns(int aCount) {
        for (int i = 0; i < aCount; ++i)
            Turn();
    }

    CCmReactorEpoll m_Reactor;
};

// One end of a socket pair in the reactor, collecting what it reads. The other end is the peer's.
struct CEnd {
    explicit CEnd(CCmReactorEpoll& aReactor, long aMask = H::READ_MASK) : m_Reactor(aReactor) {
        std::tie(m_Own, m_Peer) = MakeSocketPair();
        m_pHandler = std::make_unique<CTestHandler>(m_Own.Get());
        m_pHandler->m_Input = [this] { return ReadSome(); };
        EXPECT_EQ(CM_OK, m_Reactor.RegisterHandler(m_pHandler.get(), aMask));
    }
    int ReadSome() {
        const std::string strRead = m_Own.Read(m_stChunk);
        m_strRead += strRead;
        return strRead.size() == m_stChunk ? 0 : -2;
    }
    void Pause() { EXPECT_EQ(CM_ERROR_FOUND, m_Reactor.RemoveHandler(m_pHandler.get(), H::READ_MASK)); }
    void Resume() { EXPECT_EQ(CM_ERROR_FOUND, m_Reactor.RegisterHandler(m_pHandler.get(), H::READ_MASK | H::WRITE_MASK)); }

    CCmReactorEpoll& m_Reactor;
    CTestFd m_Own;
    CTestFd m_Peer;
    std::unique_ptr<CTestHandler> m_pHandler;
    size_t m_stChunk = 16384;
    std::string m_strRead;
};

}  // namespace

TEST_F(ReactorTest, AReportForAnOldHandleNeverReachesTheNewOne) {
    // Both ends are ready in one turn; whichever comes first gives the other's number to a new handler.
    CEnd a(m_Reactor);
    CEnd b(m_Reactor);
    const auto fresh = MakeSocketPair();
    std::unique_ptr<CTestHandler> pNew;
    const auto replace = [&](CEnd& aOther) {
        EXPECT_EQ(CM_OK, m_Reactor.RemoveHandler(aOther.m_pHandler.get(), H::READ_MASK));
        EXPECT_EQ(aOther.m_Own.Get(), dup3(fresh.first.Get(), aOther.m_Own.Get(), O_CLOEXEC));
        pNew = std::make_unique<CTestHandler>(aOther.m_Own.Get());
        EXPECT_EQ(CM_OK, m_Reactor.RegisterHandler(pNew.get(), H::READ_MASK));
        return -2;
    };
    a.m_pHandler->m_Input = [&] { return replace(b); };
    b.m_pHandler->m_Input = [&] { return replace(a); };
    a.m_Peer.Write("x");
    b.m_Peer.Write("x");
    Turn();
    EXPECT_EQ(1, a.m_pHandler->m_nInputs + b.m_pHandler->m_nInputs);
    EXPECT_EQ(0, pNew->m_nInputs + pNew->m_nCloses);
    fresh.second.Write("x");
    Turn();
    EXPECT_EQ(1, pNew->m_nInputs);
}

TEST_F(ReactorTest, ACallbackMayDeleteAnyHandler) {
    CEnd a(m_Reactor);
    CEnd b(m_Reactor);
    int nCalls = 0;
    const auto removeBoth = [&] {
        ++nCalls;
        for (CEnd* pEnd : {&a, &b}) {
            EXPECT_EQ(CM_OK, m_Reactor.RemoveHandler(pEnd->m_pHandler.get(), H::READ_MASK));
            pEnd->m_pHandler.reset();
        }
        return -1;
    };
    const auto fromACopy = [&removeBoth] {  // the running one dies with its handler
        const auto copy = removeBoth;
        return copy();
    };
    a.m_pHandler->m_Input = fromACopy;
    b.m_pHandler->m_Input = fromACopy;
    a.m_Peer.Write("x");
    b.m_Peer.Write("x");
    Turns(3);
    EXPECT_EQ(1, nCalls);
}

TEST_F(ReactorTest, PausedReadingLosesNothing) {
    CEnd end(m_Reactor, H::READ_MASK | H::WRITE_MASK);
    end.m_pHandler->m_Input = [&] {
        end.Pause();
        return 0;
    };
    end.m_Peer.Write("one ");
    Turns(3);
    end.m_Peer.Write("two ");
    Turns(3);
    EXPECT_EQ(1, end.m_pHandler->m_nInputs);
    end.m_pHandler->m_Input = [&] { return end.ReadSome(); };
    end.Resume();
    Turn();
    EXPECT_EQ("one two ", end.m_strRead);
}

TEST_F(ReactorTest, AHandlerThatGoesOnIsAskedAgainAndOthersAreServed) {
    CEnd busy(m_Reactor);
    CEnd other(m_Reactor);
    busy.m_pHandler->m_Input = [] { return 0; };  // reads nothing
    busy.m_Peer.Write("x");
    Turn();
    other.m_Peer.Write("y");
    CEventFate event;
    m_Reactor.PostEvent(new CTestEvent(event));
    Turn();
    EXPECT_EQ(2, busy.m_pHandler->m_nInputs);
    EXPECT_EQ("y", other.m_strRead);
    EXPECT_EQ(1, event.m_nFired);
    busy.m_pHandler->m_Input = [&] { return busy.ReadSome(); };
    Turns(3);
    EXPECT_EQ("x", busy.m_strRead);
    EXPECT_EQ(3, busy.m_pHandler->m_nInputs);  // nothing to read any more, so no further call

    busy.m_stChunk = 3;  // a read that filled the buffer is reported again
    busy.m_Peer.Write("abcdefgh");
    Turns(3);
    EXPECT_EQ("xabcdefgh", busy.m_strRead);
}

TEST_F(ReactorTest, RoomToWriteIsReported) {
    CEnd end(m_Reactor, H::READ_MASK | H::WRITE_MASK);
    Turn();
    const int nBefore = end.m_pHandler->m_nOutputs;
    EXPECT_GT(nBefore, 0);  // there is room from the start
    const std::string strData(4096, 'x');
    while (write(end.m_Own.Get(), strData.data(), strData.size()) > 0) {
    }
    Turn();
    EXPECT_EQ(nBefore, end.m_pHandler->m_nOutputs);
    while (!end.m_Peer.Read().empty()) {
    }
    Turn();
    EXPECT_GT(end.m_pHandler->m_nOutputs, nBefore);
    const int nDrained = end.m_pHandler->m_nOutputs;
    m_Reactor.RemoveHandler(end.m_pHandler.get(), H::WRITE_MASK);
    m_Reactor.RegisterHandler(end.m_pHandler.get(), H::READ_MASK | H::WRITE_MASK);  // asks to be told, though no edge comes
    Turn();
    EXPECT_EQ(nDrained + 1, end.m_pHandler->m_nOutputs);
}

TEST_F(ReactorTest, CloseComesBehindUnreadBytes) {
    CCmTraceCapture trace;
    CEnd end(m_Reactor);
    end.m_Peer.Write(std::string(40000, 'x'));
    end.m_Peer.Close();
    end.m_pHandler->m_Input = [&] {
        EXPECT_EQ(0, end.m_pHandler->m_nCloses);
        return end.ReadSome();
    };
    Turns(2);
    EXPECT_EQ(40000u, end.m_strRead.size());
    EXPECT_EQ(1, end.m_pHandler->m_nCloses);
    EXPECT_EQ(H::READ_MASK, end.m_pHandler->m_lCloseMask);
    EXPECT_TRUE(
        trace.Contains("CCmReactorWin32Message::Win32SocketWndProc, data remained in the handle wehn closing, recv it. "
                       "dwRemain=40000 this="));
}

TEST_F(ReactorTest, ACloseDoesNotWaitForAHandlerThatDoesNotRead) {
    CEnd idle(m_Reactor);
    CEnd writer(m_Reactor, H::WRITE_MASK);
    idle.m_pHandler->m_Input = [] { return 0; };
    for (CEnd* pEnd : {&idle, &writer}) {
        pEnd->m_Peer.Write("never read");
        pEnd->m_Peer.Close();
    }
    Turns(2);
    EXPECT_EQ(1, idle.m_pHandler->m_nCloses);
    EXPECT_EQ(1, writer.m_pHandler->m_nCloses);
    EXPECT_EQ(0, writer.m_pHandler->m_nInputs);
}

TEST_F(ReactorTest, ACloseWaitsWithTheBytesWhileReadingIsPaused) {
    for (const bool bPauseInside : {false, true}) {
        CEnd end(m_Reactor, H::READ_MASK | H::WRITE_MASK);
        Turn();
        if (bPauseInside)
            end.m_pHandler->m_Input = [&] {
                end.Pause();
                return -2;  // has read nothing
            };
        else
            end.Pause();
        end.m_Peer.Write("last words");
        end.m_Peer.Close();
        Turns(3);
        EXPECT_EQ(bPauseInside ? 1 : 0, end.m_pHandler->m_nInputs);
        EXPECT_EQ(0, end.m_pHandler->m_nCloses);
        end.m_pHandler->m_Input = [&] { return end.ReadSome(); };
        end.Resume();
        Turn();
        EXPECT_EQ("last words", end.m_strRead);
        EXPECT_EQ(1, end.m_pHandler->m_nCloses);
    }
}

// Somebody who paused because the peer does not read must hear that it reads again, even if it will send no more; and must hear
// of a failure, since then nothing else will come.
TEST_F(ReactorTest, APauseHoldsBackAnOrderlyCloseButNeitherRoomNorFailures) {
    CEnd end(m_Reactor, H::READ_MASK | H::WRITE_MASK);
    Turn();
    const std::string strData(4096, 'x');
    while (write(end.m_Own.Get(), strData.data(), strData.size()) > 0) {
    }
    end.Pause();
    shutdown(end.m_Peer.Get(), SHUT_WR);
    Turns(2);
    const int nBefore = end.m_pHandler->m_nOutputs;
    while (!end.m_Peer.Read().empty()) {
    }
    Turns(2);
    EXPECT_GT(end.m_pHandler->m_nOutputs, nBefore);
    EXPECT_EQ(0, end.m_pHandler->m_nCloses);

    write(end.m_Own.Get(), strData.data(), strData.size());
    end.m_Peer.Close();  // with bytes unread: a reset
    Turns(2);
    EXPECT_EQ(1, end.m_pHandler->m_nCloses);
}

TEST_F(ReactorTest, NotificationsReachWhoIsStillRegistered) {
    CEnd a(m_Reactor);
    CEnd b(m_Reactor);
    a.m_pHandler->m_Input = [&] {
        EXPECT_EQ(CM_OK, m_Reactor.RemoveHandler(b.m_pHandler.get(), H::READ_MASK));
        return -2;
    };
    std::thread([&] {
        m_Reactor.NotifyHandler(a.m_pHandler.get(), H::READ_MASK);
        m_Reactor.NotifyHandler(b.m_pHandler.get(), H::READ_MASK);
    }).join();
    Turns(2);
    EXPECT_EQ(1, a.m_pHandler->m_nInputs);
    EXPECT_EQ(0, b.m_pHandler->m_nInputs);

    m_Reactor.NotifyHandler(a.m_pHandler.get(), H::CLOSE_MASK);
    m_Reactor.NotifyHandler(a.m_pHandler.get(), H::READ_MASK);
    Turn();
    EXPECT_EQ(1, a.m_pHandler->m_nInputs);
    EXPECT_EQ(1, a.m_pHandler->m_nCloses);
    CTestHandler b2(b.m_Own.Get());  // another one on a handle whose notification is pending
    EXPECT_EQ(CM_OK, m_Reactor.RegisterHandler(b.m_pHandler.get(), H::READ_MASK));
    m_Reactor.NotifyHandler(b.m_pHandler.get(), H::READ_MASK);
    m_Reactor.RegisterHandler(&b2, H::READ_MASK);
    Turn();
    EXPECT_EQ(0, b.m_pHandler->m_nInputs + b2.m_nInputs);
}

// Connects to the port, if anybody listens; the handler is watched for the end of the attempt.
static CTestFd ConnectTo(const sockaddr_in& aAddr) {
    CTestFd fd = MakeTcpSocket();
    EXPECT_EQ(-1, connect(fd.Get(), reinterpret_cast<const sockaddr*>(&aAddr), sizeof aAddr));
    EXPECT_EQ(EINPROGRESS, errno);
    return fd;
}

TEST_F(ReactorTest, AcceptsOnePerReportAndTellsHowConnectsEnd) {
    CTestFd listener = MakeTcpSocket();
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nSize = sizeof addr;
    ASSERT_EQ(0, bind(listener.Get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    ASSERT_EQ(0, listen(listener.Get(), 5));
    ASSERT_EQ(0, getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&addr), &nSize));
    std::vector<CTestFd> accepted;
    CTestHandler acceptor(listener.Get());
    acceptor.m_Input = [&] {
        accepted.emplace_back(accept4(listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        return -2;
    };
    m_Reactor.RegisterHandler(&acceptor, H::ACCEPT_MASK);

    CTestFd client = ConnectTo(addr);
    CTestFd second = ConnectTo(addr);
    CTestHandler connecting(client.Get());
    CTestHandler transport(client.Get());
    transport.m_Input = [] { return -2; };
    connecting.m_Output = [&] {  // the usual way on: another handler takes the handle over
        EXPECT_EQ(CM_ERROR_FOUND, m_Reactor.RegisterHandler(&transport, H::READ_MASK | H::WRITE_MASK));
        return 0;
    };
    m_Reactor.RegisterHandler(&connecting, H::CONNECT_MASK);
    while (accepted.size() < 2 || transport.m_nOutputs == 0)
        EXPECT_EQ(CM_OK, m_Reactor.RunOnce());
    EXPECT_EQ(2, acceptor.m_nInputs);
    EXPECT_EQ(1, connecting.m_nOutputs);
    EXPECT_EQ(0, transport.m_nInputs);
    accepted[0].Write("x");
    accepted[1].Write("x");
    while (transport.m_nInputs == 0)
        EXPECT_EQ(CM_OK, m_Reactor.RunOnce());

    const linger abort{1, 0};
    for (const CTestFd& fd : accepted)
        setsockopt(fd.Get(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    accepted.clear();  // broken, not closed
    while (transport.m_nCloses == 0)
        EXPECT_EQ(CM_OK, m_Reactor.RunOnce());
    m_Reactor.RemoveHandler(&acceptor, H::ACCEPT_MASK);
    listener.Close();
    CTestFd refused = ConnectTo(addr);
    CTestHandler failing(refused.Get());
    m_Reactor.RegisterHandler(&failing, H::CONNECT_MASK);  // a failure is told as an end of the attempt, not as a close
    while (failing.m_nOutputs == 0)
        EXPECT_EQ(CM_OK, m_Reactor.RunOnce());
    EXPECT_EQ(0, failing.m_nCloses);
}

TEST_F(ReactorTest, TheLoopRunsOnceAndNotFromInside) {
    CCmReactorEpoll closed;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, closed.RunEventLoop());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, closed.RunOnce());
    CTestHandler noHandle(CM_INVALID_HANDLE);
    EXPECT_EQ(CM_ERROR_UNEXPECTED, m_Reactor.RegisterHandler(&noHandle, H::READ_MASK));
    PostTo(m_Reactor, [&] {
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, m_Reactor.RunEventLoop());
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, m_Reactor.RunOnce());
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, m_Reactor.Close());
        m_Reactor.StopEventLoop();
    });
    EXPECT_EQ(CM_OK, m_Reactor.RunEventLoop());
    m_Reactor.StopEventLoop();
    EXPECT_EQ(CM_OK, m_Reactor.RunEventLoop());  // was stopped before it ran
    std::thread stopper([&] { m_Reactor.StopEventLoop(); });
    EXPECT_EQ(CM_OK, m_Reactor.RunEventLoop());
    stopper.join();
}

// Nothing but posts and sends: each must be seen, whatever moment of the loop it meets.
TEST_F(ReactorTest, PostsAndSendsFromManyThreadsAreAllRun) {
    constexpr int THREADS = 4;
    constexpr int POSTS = 3000;
    int nRun = 0;
    std::atomic<int> nThreads{THREADS};
    std::vector<std::thread> threads;
    for (int nThread = 0; nThread < THREADS; ++nThread) {
        threads.emplace_back([&] {
            for (int i = 1; i <= POSTS; ++i) {
                if (i % 1000 == 0)
                    EXPECT_EQ(CM_ERROR_FOUND, m_Reactor.SendEvent(new CTestEvent([&] {
                        ++nRun;
                        return CM_ERROR_FOUND;
                    })));
                else
                    EXPECT_EQ(CM_OK, PostTo(m_Reactor, [&] { ++nRun; }));
            }
            if (--nThreads == 0)
                PostTo(m_Reactor, [&] { m_Reactor.StopEventLoop(); });
        });
    }
    EXPECT_EQ(CM_OK, m_Reactor.RunEventLoop());
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(THREADS * POSTS, nRun);
    EXPECT_EQ(static_cast<uint64_t>(THREADS * POSTS) + 1, m_Reactor.GetCounters().m_ullEvents);
}

// Goes on until a post met the loop asleep and the system had to be asked: without wake-ups it never ends.
TEST_F(ReactorTest, APostIntoASleepingLoopWakesIt) {
    CCmSemaphoreThread answered;
    std::thread asker([&] {
        for (uint64_t ullWrites = 0; ullWrites == 0;) {
            PostTo(m_Reactor, [&] {
                ullWrites = m_Reactor.GetCounters().m_ullWakeWrites;
                answered.UnLock();
            });
            answered.Lock();
        }
        m_Reactor.StopEventLoop();
    });
    EXPECT_EQ(CM_OK, m_Reactor.RunEventLoop());
    asker.join();
}

TEST_F(ReactorTest, DueTimersFireInTheTurnAndBusyOnesHoldNobody) {
    CCmFakeClock clock;
    CEnd end(m_Reactor);
    CTestTimer once;
    CTestTimer again;
    again.m_Run = [&] { m_Reactor.ScheduleTimer(&again, nullptr, CCmTimeValue::s_tvZero, 1); };
    again.m_Run();
    m_Reactor.ScheduleTimer(&once, nullptr, CCmTimeValue(5), 1);
    Turn();
    EXPECT_EQ(0, once.m_nFired);
    end.m_Peer.Write("x");
    clock.Advance(CCmTimeValue(5));
    Turn();
    EXPECT_EQ(1, once.m_nFired);
    EXPECT_EQ("x", end.m_strRead);
    EXPECT_GE(again.m_nFired, 2);
}
