#include "talvo/event/signal_handler.h"

#include <sys/types.h>

#include <csignal>

#include "tests/support/event_helpers.h"

namespace {

class CSignalLog : public ICmSignalSink {
public:
    void OnSignal(int aSignal) override {
        m_Signals.push_back(aSignal);
        if (m_OnSignal)
            m_OnSignal();
    }
    std::vector<int> m_Signals;
    std::function<void()> m_OnSignal;
};

class SignalHandlerTest : public testing::Test {
protected:
    SignalHandlerTest() {
        pthread_sigmask(SIG_BLOCK, nullptr, &m_Before);
        EXPECT_EQ(CM_OK, m_Reactor.Open());
    }
    ~SignalHandlerTest() override { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }

    static void Raise(int aSignal) { EXPECT_EQ(0, kill(getpid(), aSignal)); }
    void Turn() { EXPECT_EQ(CM_OK, m_Reactor.RunOnce()); }

    sigset_t m_Before{};
    CSignalLog m_Log;
    CCmReactorEpoll m_Reactor;
};

// A thread that runs, and blocks no signal, while it is in scope.
class COpenThread {
public:
    COpenThread()
        : m_Thread([this] {
              sigset_t all;
              sigfillset(&all);
              pthread_sigmask(SIG_UNBLOCK, &all, nullptr);
              m_Ready.Signal();
              m_End.Wait();
          }) {
        m_Ready.Wait();
    }
    ~COpenThread() {
        m_End.Signal();
        m_Thread.join();
    }

private:
    CCmEventThread m_Ready;
    CCmEventThread m_End;
    std::thread m_Thread;
};

}  // namespace

TEST_F(SignalHandlerTest, SignalsComeFromTheLoopAndTheSinkMayDeleteTheHandler) {
    auto pHandler = std::make_unique<CCmSignalHandler>();
    EXPECT_EQ(CM_OK, CCmSignalHandler::Block({SIGUSR1}));
    Raise(SIGUSR1);  // pending before Open
    ASSERT_EQ(CM_OK, pHandler->Open(&m_Reactor, {SIGUSR1, SIGUSR2}, &m_Log));
    Turn();
    for (int nSignal : {SIGUSR2, SIGUSR1, SIGUSR2})
        Raise(nSignal);
    Turn();
    EXPECT_EQ((std::vector<int>{SIGUSR1, SIGUSR1, SIGUSR2}), m_Log.m_Signals);

    m_Log.m_OnSignal = [&] { pHandler.reset(); };
    Raise(SIGUSR1);
    Raise(SIGUSR2);
    Turn();
    EXPECT_EQ(4u, m_Log.m_Signals.size());
    // The other one has stayed pending for a later handler, also after that was destroyed in another thread.
    m_Log.m_OnSignal = nullptr;
    auto pOther = std::make_unique<CCmSignalHandler>();
    ASSERT_EQ(CM_OK, pOther->Open(&m_Reactor, {SIGUSR2}, &m_Log));
    Turn();
    EXPECT_EQ(SIGUSR2, m_Log.m_Signals.back());
    std::thread([&] {
        EXPECT_EQ(CM_ERROR_FAILURE, pOther->Close());
        pOther.reset();
    }).join();
    Raise(SIGUSR2);
    Turn();
    EXPECT_EQ(5u, m_Log.m_Signals.size());
    CCmSignalHandler last;
    ASSERT_EQ(CM_OK, last.Open(&m_Reactor, {SIGUSR2}, &m_Log));
    Turn();
    EXPECT_EQ(6u, m_Log.m_Signals.size());
    m_Reactor.Close();
    EXPECT_EQ(CM_OK, last.Close());
}

TEST_F(SignalHandlerTest, WhatCannotWorkIsRefusedAndChangesNothing) {
    CCmSignalHandler handler;
    const std::initializer_list<int> none;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, handler.Open(nullptr, {SIGUSR1}, &m_Log));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, handler.Open(&m_Reactor, {SIGUSR1}, nullptr));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, handler.Open(&m_Reactor, none, &m_Log));
    for (int nSignal : {0, -1, 32, 65, SIGCHLD, SIGKILL, SIGSEGV})
        EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmSignalHandler::Block({SIGUSR1, nSignal})) << nSignal;
    {
        const COpenThread late;
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, handler.Open(&m_Reactor, {SIGUSR1}, &m_Log));
    }
    EXPECT_EQ(CM_OK, CCmSignalHandler::Block({SIGRTMIN}));
    std::thread([&] { EXPECT_EQ(CM_ERROR_FAILURE, handler.Open(&m_Reactor, {SIGRTMIN}, &m_Log)); }).join();
    sigset_t now;
    pthread_sigmask(SIG_BLOCK, nullptr, &now);
    EXPECT_EQ(0, sigismember(&now, SIGUSR1));

    ASSERT_EQ(CM_OK, handler.Open(&m_Reactor, {SIGUSR1}, &m_Log));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, handler.Open(&m_Reactor, {SIGUSR2}, &m_Log));
    CCmSignalHandler second;
    EXPECT_EQ(CM_ERROR_FOUND, second.Open(&m_Reactor, {SIGUSR2, SIGUSR1}, &m_Log));
    EXPECT_EQ(CM_OK, handler.Close());
    EXPECT_EQ(CM_OK, handler.Close());
    EXPECT_EQ(CM_OK, second.Open(&m_Reactor, {SIGUSR2, SIGUSR1}, &m_Log));
}
