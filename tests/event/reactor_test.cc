#include <poll.h>

#include <optional>

#include "talvo/event/home_reactor.h"
#include "tests/support/event_helpers.h"
#include "tests/support/event_socket.h"

namespace {

using H = ACmEventHandler;

class ReactorTest : public testing::Test {
protected:
    ReactorTest() { EXPECT_EQ(CM_OK, m_Reactor.Open()); }

    // Turns that do not sleep.
    void Turns(int aCount) {
        for (int i = 0; i < aCount; ++i)
            EXPECT_EQ(CM_OK, m_Reactor.RunOnce(&CCmTimeValue::s_tvZero));
    }
    void Turn() { Turns(1); }

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
        pNew->m_Input = [] { return -2; };
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
    // The same handler again, registered inside its callback, is a new binding, which the callback's result does not end.
    pNew->m_Input = [&] {
        EXPECT_EQ(CM_OK, m_Reactor.RemoveHandler(pNew.get(), H::READ_MASK));
        EXPECT_EQ(CM_OK, m_Reactor.RegisterHandler(pNew.get(), H::READ_MASK));
        return -1;
    };
    fresh.second.Write("x");
    Turn();
    EXPECT_EQ(0, pNew->m_nCloses);
    EXPECT_EQ(CM_OK, m_Reactor.RemoveHandler(pNew.get(), H::READ_MASK));
}

TEST_F(ReactorTest, AHomeIsNeverTheNewReactorAtTheOldAddress) {
    std::optional<CCmReactorEpoll> reactor(std::in_place);
    const talvo::CHomeReactor home(&*reactor);
    std::make_unique<CCmReactorEpoll>().reset();  // others come and go
    EXPECT_TRUE(home.IsAlive());
    reactor.emplace();
    EXPECT_EQ(&*reactor, static_cast<ICmReactor*>(home));
    EXPECT_EQ(CM_OK, reactor->Open());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, home->CancelTimer(nullptr));
}

TEST_F(ReactorTest, HandlesDoNotWaitForManyLongEvents) {
    CCmFakeClock clock;
    CEnd end(m_Reactor);
    int nRun = 0;
    int nRunBeforeInput = 0;
    end.m_pHandler->m_Input = [&] {
        nRunBeforeInput = nRun;
        return end.ReadSome();
    };
    for (int i = 0; i < 40; ++i)
        PostTo(m_Reactor, [&] {
            if (++nRun == 1)
                end.m_Peer.Write("x");
            clock.Advance(CCmTimeValue(0, 15));
        });
    Turn();
    EXPECT_EQ(10, nRun);  // 75 us behind the first batch, 150 behind the second
    Turn();
    EXPECT_EQ(10, nRunBeforeInput);
    Turns(2);
    EXPECT_EQ(40, nRun);
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
    EXPECT_EQ(8, busy.m_pHandler->m_nInputs);  // four a turn
    EXPECT_EQ("y", other.m_strRead);
    EXPECT_EQ(1, event.m_nFired);
    busy.m_pHandler->m_Input = [&] { return busy.ReadSome(); };
    busy.m_stChunk = 3;  // a read that filled the buffer is reported again
    busy.m_Peer.Write("abcdef");
    Turns(5);
    EXPECT_EQ("xabcdef", busy.m_strRead);
    EXPECT_EQ(11, busy.m_pHandler->m_nInputs);  // nothing to read any more, so no further call
}

TEST_F(ReactorTest, CloseComesBehindUnreadBytesUnlessNobodyReadsThem) {
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
    CEnd idle(m_Reactor, H::WRITE_MASK);
    idle.m_Peer.Write("never read");
    idle.m_Peer.Close();
    Turns(2);
    EXPECT_EQ(1, idle.m_pHandler->m_nCloses);
    EXPECT_EQ(1, end.m_pHandler->m_nCloses);
    EXPECT_TRUE(trace.Contains("data remained in the handle wehn closing, recv it. dwRemain=40000 this="));
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
    EXPECT_GT(nBefore, 0);  // there was room from the start
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

TEST_F(ReactorTest, AnotherLoopPollsOneDescriptorAndATimeOut) {
    const CCmFakeClock clock;
    ICmEmbeddedLoop* pLoop = cm_get_embedded_loop(&m_Reactor);
    ASSERT_TRUE(pLoop);
    EXPECT_FALSE(cm_get_embedded_loop(nullptr));
    const auto isReadable = [&] {
        pollfd poll{pLoop->GetPollHandle(), POLLIN, 0};
        return ::poll(&poll, 1, 0) == 1;
    };
    const auto turn = [&] { EXPECT_EQ(CM_OK, pLoop->RunOnce()); };
    // The tick, which also makes the descriptor readable, is taken first.
    const auto wakes = [&](auto aCause) {
        for (int i = 0; i < 1000; ++i) {
            turn();
            if (isReadable())
                continue;
            aCause();
            return isReadable();
        }
        return false;
    };
    int nRuns = 0;
    const auto post = [&] { PostTo(m_Reactor, [&] { ++nRuns; }); };
    CEnd end(m_Reactor);
    CTestTimer timer([&] { ++nRuns; });
    EXPECT_EQ(-1, pLoop->GetTimeout());
    EXPECT_TRUE(wakes([&] { end.m_Peer.Write("x"); }));
    turn();
    EXPECT_EQ("x", end.m_strRead);
    EXPECT_TRUE(wakes(post));
    EXPECT_EQ(0, pLoop->GetTimeout());
    turn();
    EXPECT_EQ(1, nRuns);
    EXPECT_TRUE(wakes([&] { std::thread(post).join(); }));
    EXPECT_TRUE(wakes([&] { m_Reactor.NotifyHandler(end.m_pHandler.get(), H::READ_MASK); }));
    EXPECT_TRUE(wakes([&] { m_Reactor.ScheduleTimer(&timer, nullptr, CCmTimeValue(3600), 1); }));
    EXPECT_EQ(3'600'000, pLoop->GetTimeout());
    m_Reactor.ScheduleTimer(&timer, nullptr, CCmTimeValue(), 1);
    EXPECT_EQ(0, pLoop->GetTimeout());
    turn();
    EXPECT_EQ(3, nRuns);
    // Work that one turn leaves keeps it readable, and so does a stop, which one RunOnce reports.
    for (int i = 0; i < 200; ++i)
        post();
    while (nRuns < 203) {
        ASSERT_TRUE(isReadable());
        turn();
    }
    EXPECT_TRUE(wakes([&] { m_Reactor.StopEventLoop(); }));
    EXPECT_EQ(0, pLoop->GetTimeout());
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pLoop->RunOnce());
    PostTo(m_Reactor, [&] { EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pLoop->RunOnce()); });
    turn();
    EXPECT_EQ(-1, pLoop->GetTimeout());
    std::thread([&] { EXPECT_EQ(CM_ERROR_FAILURE, pLoop->RunOnce()); }).join();
}
