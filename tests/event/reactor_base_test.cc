#include "talvo/event/reactor_base.h"

#include <gtest/gtest.h>

#include "tests/support/event_helpers.h"
#include "tests/support/event_socket.h"
#include "tests/support/trace_capture.h"

namespace {

using H = ACmEventHandler;

// A concrete reactor without a system below it: it notes what the base asks for.
class CPaperReactor : public CCmReactorBase {
public:
    CPaperReactor() { Open(); }
    ~CPaperReactor() override { Close(); }

    CmResult NotifyHandler(ACmEventHandler* aEh, long aMask) override {
        EXPECT_EQ(nullptr, aEh);
        EXPECT_EQ(H::EVENTQUEUE_MASK, aMask);
        ++m_nNotified;
        return CM_OK;
    }
    CmResult RunEventLoop() override { return CM_OK; }
    CmResult StopEventLoop() override { return CM_OK; }
    CmResult OnHandleRegister(HANDLE, long aMask, ACmEventHandler*) override {
        ++m_nRegistered;
        m_lMask = aMask;
        return m_rvRegister;
    }
    CmResult OnHandleRemoved(HANDLE) override {
        ++m_nRemoved;
        return CM_OK;
    }
    CmResult Report(long aMask) { return ProcessHandleEvent(7, aMask, CM_OK, FALSE, FALSE); }

    std::atomic<int> m_nNotified{0};
    int m_nRegistered = 0;
    int m_nRemoved = 0;
    long m_lMask = 0;
    CmResult m_rvRegister = CM_OK;
};

class ReactorBaseTest : public testing::Test {
protected:
    CPaperReactor m_Reactor;
    CTestHandler m_Handler{7};
};

}  // namespace

TEST_F(ReactorBaseTest, RegisteringTellsWhatItDid) {
    CCmTraceCapture trace;
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, m_Reactor.Open());
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_Reactor.RegisterHandler(nullptr, H::READ_MASK));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_Reactor.RegisterHandler(&m_Handler, H::CLOSE_MASK));
    EXPECT_TRUE(trace.Contains("CCmReactorBase::RegisterHandler, NULL_MASK. aMask=128 this="));
    m_Reactor.m_rvRegister = CM_ERROR_UNEXPECTED;
    EXPECT_EQ(CM_ERROR_UNEXPECTED, m_Reactor.RegisterHandler(&m_Handler, H::READ_MASK));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_Reactor.RemoveHandler(&m_Handler, H::READ_MASK));

    m_Reactor.m_rvRegister = CM_OK;
    EXPECT_EQ(CM_OK, m_Reactor.RegisterHandler(&m_Handler, H::READ_MASK | 0x200 | H::CLOSE_MASK));
    EXPECT_EQ(H::READ_MASK | 0x200, m_Reactor.m_lMask);
    EXPECT_EQ(CM_OK, m_Reactor.RegisterHandler(&m_Handler, H::READ_MASK));
    EXPECT_EQ(CM_ERROR_FOUND, m_Reactor.RegisterHandler(&m_Handler, H::WRITE_MASK));
    EXPECT_EQ(2, m_Reactor.m_nRegistered);  // the failure and the first
    m_Reactor.Report(H::READ_MASK | H::WRITE_MASK);
    EXPECT_EQ(0, m_Handler.m_nInputs);
    EXPECT_EQ(1, m_Handler.m_nOutputs);
}

TEST_F(ReactorBaseTest, RemovingTellsWhatItDidAndNeverCloses) {
    CCmTraceCapture trace;
    CTestHandler invalid(CM_INVALID_HANDLE);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_Reactor.RemoveHandler(nullptr, H::READ_MASK));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_Reactor.RemoveHandler(&m_Handler, H::NULL_MASK));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_Reactor.RemoveHandler(&invalid, H::READ_MASK));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_Reactor.RemoveHandler(&m_Handler, H::READ_MASK));
    m_Reactor.RegisterHandler(&m_Handler, H::READ_MASK | H::WRITE_MASK);
    EXPECT_EQ(CM_OK, m_Reactor.RemoveHandler(&m_Handler, H::ACCEPT_MASK));
    EXPECT_TRUE(trace.Contains("CCmReactorBase::RemoveHandleWithoutFinding_i, mask is equal. aMask=1"));
    EXPECT_EQ(CM_ERROR_FOUND, m_Reactor.RemoveHandler(&m_Handler, H::WRITE_MASK));
    EXPECT_EQ(0, m_Reactor.m_nRemoved);
    m_Reactor.Report(H::READ_MASK | H::WRITE_MASK);
    EXPECT_EQ(1, m_Handler.m_nInputs);
    EXPECT_EQ(0, m_Handler.m_nOutputs);
    EXPECT_EQ(CM_OK, m_Reactor.RemoveHandler(&m_Handler, H::READ_MASK | H::SHOULD_CALL_MASK));
    EXPECT_EQ(1, m_Reactor.m_nRemoved);
    EXPECT_EQ(0, m_Handler.m_nCloses);
}

TEST_F(ReactorBaseTest, ResultsOfCallbacksSteer) {
    m_Reactor.RegisterHandler(&m_Handler, H::READ_MASK | H::WRITE_MASK);
    m_Handler.m_Output = [] { return 0; };
    EXPECT_EQ(CM_OK, m_Reactor.Report(H::READ_MASK | H::WRITE_MASK));
    m_Handler.m_Input = [] { return -2; };
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, m_Reactor.Report(H::READ_MASK));
    EXPECT_EQ(CM_OK, m_Reactor.Report(H::READ_MASK | H::WRITE_MASK));  // the output's 0 is the final one
    EXPECT_EQ(2, m_Handler.m_nOutputs);
    m_Handler.m_Input = [] { return -1; };
    EXPECT_EQ(CM_ERROR_FAILURE, m_Reactor.Report(H::READ_MASK | H::WRITE_MASK));
    EXPECT_EQ(2, m_Handler.m_nOutputs);
    EXPECT_EQ(1, m_Handler.m_nCloses);
    EXPECT_EQ(H::READ_MASK | H::WRITE_MASK, m_Handler.m_lCloseMask);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_Reactor.Report(H::READ_MASK));

    m_Reactor.RegisterHandler(&m_Handler, H::READ_MASK);
    EXPECT_EQ(CM_ERROR_FAILURE, m_Reactor.Report(H::CLOSE_MASK));
    EXPECT_EQ(2, m_Handler.m_nCloses);
}

TEST_F(ReactorBaseTest, ReportsThatFitNothingAreLoggedUnlessAskedFor) {
    CCmTraceCapture trace;
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_Reactor.ProcessHandleEvent(7, H::READ_MASK, CM_OK, FALSE, TRUE));
    EXPECT_EQ(0u, trace.Count("not registed"));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_Reactor.Report(H::READ_MASK));
    EXPECT_EQ(1u, trace.Count("CCmReactorBase::ProcessHandleEvent, handle not registed. aFd=7"));
    m_Reactor.RegisterHandler(&m_Handler, H::CONNECT_MASK);
    EXPECT_EQ(CM_OK, m_Reactor.ProcessHandleEvent(7, H::READ_MASK, CM_OK, TRUE, FALSE));
    EXPECT_EQ(0u, trace.Count("mask not registed"));
    EXPECT_EQ(CM_OK, m_Reactor.Report(H::READ_MASK));
    EXPECT_EQ(1u, trace.Count("CCmReactorBase::ProcessHandleEvent, mask not registed. aFd=7 m_Mask=2 aMask=4"));
    m_Reactor.ProcessHandleEvent(7, H::CONNECT_MASK, CM_OK, FALSE, TRUE);
    EXPECT_EQ(1u, trace.Count("CCmReactorBase::ProcessHandleEvent, drop connect. aFd=7"));
    EXPECT_EQ(0, m_Handler.m_nOutputs);
}

TEST_F(ReactorBaseTest, WhatACallbackRemovedOrReplacedIsNotTouched) {
    CTestHandler other(7);
    auto* pHandler = new CTestHandler(7);
    for (const int nResult : {-1, 0}) {  // 0 goes on to the output, which must not reach a deleted handler
        pHandler->m_Input = [&, nResult] {
            const int nCopy = nResult;  // what is captured dies with the handler
            m_Reactor.RemoveHandler(pHandler, H::ALL_EVENTS_MASK);
            EXPECT_EQ(0, pHandler->m_nCloses);
            delete pHandler;
            return nCopy;
        };
        m_Reactor.RegisterHandler(pHandler, H::READ_MASK | H::WRITE_MASK);
        EXPECT_EQ(CM_ERROR_FAILURE, m_Reactor.Report(H::READ_MASK | H::WRITE_MASK));
        pHandler = new CTestHandler(7);
    }
    EXPECT_EQ(2, m_Reactor.m_nRemoved);
    delete pHandler;

    m_Handler.m_Input = [&] {
        m_Reactor.RegisterHandler(&other, H::READ_MASK);
        return -1;
    };
    m_Reactor.RegisterHandler(&m_Handler, H::READ_MASK);
    EXPECT_EQ(CM_ERROR_FAILURE, m_Reactor.Report(H::READ_MASK));
    EXPECT_EQ(0, m_Handler.m_nCloses + other.m_nCloses);
    m_Reactor.Report(H::READ_MASK);
    EXPECT_EQ(1, other.m_nInputs);
}

TEST_F(ReactorBaseTest, EventsRunFiveAReport) {
    int nRun = 0;
    for (int i = 0; i < 12; ++i)
        PostTo(m_Reactor, [&] { ++nRun; });
    EXPECT_EQ(1, m_Reactor.m_nNotified);  // for the first: a wake-up was under way for the others
    const auto report = [&] { return m_Reactor.ProcessHandleEvent(CM_INVALID_HANDLE, H::EVENTQUEUE_MASK, CM_OK, TRUE, FALSE); };
    EXPECT_EQ(CM_OK, report());
    EXPECT_EQ(5, nRun);
    EXPECT_EQ(CM_OK, report());
    EXPECT_EQ(10, nRun);
    EXPECT_EQ(3, m_Reactor.m_nNotified);
    EXPECT_EQ(CM_OK, report());
    EXPECT_EQ(12, nRun);
    EXPECT_EQ(3, m_Reactor.m_nNotified);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, report());
}

TEST_F(ReactorBaseTest, APostBehindAWaitingSentEventWakesTheLoop) {
    CEventFate posted;
    std::thread sender([&] { m_Reactor.SendEvent(new CTestEvent([] { return CM_OK; })); });
    YieldUntil([&] { return m_Reactor.GetPendingEventsCount() == 1; });
    EXPECT_EQ(0, m_Reactor.m_nNotified);  // a sent event wakes nobody
    m_Reactor.PostEvent(new CTestEvent(posted));
    EXPECT_EQ(1, m_Reactor.m_nNotified);
    m_Reactor.ProcessHandleEvent(CM_INVALID_HANDLE, H::EVENTQUEUE_MASK, CM_OK, TRUE, FALSE);
    sender.join();
    EXPECT_EQ(1, posted.m_nFired);
}

TEST_F(ReactorBaseTest, CloseEndsEventsTimersAndHandlers) {
    CCmTraceCapture trace;
    CEventFate pending;
    CTestTimer timer;
    m_Reactor.RegisterHandler(&m_Handler, H::READ_MASK);
    m_Reactor.PostEvent(new CTestEvent(pending));
    EXPECT_EQ(CM_OK, m_Reactor.ScheduleTimer(&timer, nullptr, CCmTimeValue::s_tvZero, 1));
    EXPECT_EQ(CM_OK, m_Reactor.Close());
    EXPECT_EQ(1, pending.m_nDestroyed);
    EXPECT_EQ(0, pending.m_nFired + timer.m_nFired + m_Handler.m_nCloses);
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, m_Reactor.PostEvent(new CTestEvent(pending)));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, m_Reactor.ScheduleTimer(&timer, nullptr, CCmTimeValue(1), 1));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, m_Reactor.CancelTimer(&timer));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, m_Reactor.ProcessTimerTick());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_Reactor.Report(H::READ_MASK));
    EXPECT_TRUE(trace.Contains("CCmReactorBase::ScheduleTimer, m_pTimerQueue not inited or closed."));
    EXPECT_TRUE(trace.Contains("CCmReactorBase::CancelTimer, m_pTimerQueue not inited or closed."));

    EXPECT_TRUE(ICmReactor::IsAlive(&m_Reactor));
    auto pOther = std::make_unique<CPaperReactor>();
    const ICmReactor* pGone = pOther.get();
    pOther.reset();
    EXPECT_FALSE(ICmReactor::IsAlive(pGone));
}
