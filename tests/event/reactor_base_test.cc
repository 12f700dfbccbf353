#include "talvo/event/reactor_base.h"

#include "tests/support/event_helpers.h"
#include "tests/support/event_socket.h"

namespace {

using H = ACmEventHandler;

// A concrete reactor without a system below it: it notes what the base asks for.
class CPaperReactor : public CCmReactorBase {
public:
    CPaperReactor() { Open(); }
    ~CPaperReactor() override { Close(); }

    CmResult NotifyHandler(ACmEventHandler*, long) override {
        ++m_nNotified;
        return CM_OK;
    }
    CmResult RunEventLoop() override { return CM_OK; }
    CmResult StopEventLoop() override { return CM_OK; }
    CmResult OnHandleRegister(HANDLE, long, ACmEventHandler*) override { return CM_OK; }
    CmResult OnHandleRemoved(HANDLE) override { return CM_OK; }
    CmResult Report(long aMask) { return ProcessHandleEvent(7, aMask, CM_OK, FALSE, FALSE); }
    CmResult ReportEvents() { return ProcessHandleEvent(CM_INVALID_HANDLE, H::EVENTQUEUE_MASK, CM_OK, TRUE, FALSE); }

    std::atomic<int> m_nNotified{0};
};

class ReactorBaseTest : public testing::Test {
protected:
    CPaperReactor m_Reactor;
    CTestHandler m_Handler{7};
};

}  // namespace

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
}

TEST_F(ReactorBaseTest, EventsRunFiveAReportAndAPostBehindASentOneWakesTheLoop) {
    int nRun = 0;
    std::thread sender([&] { m_Reactor.SendEvent(new CTestEvent([] { return CM_OK; })); });
    YieldUntil([&] { return m_Reactor.GetPendingEventsCount() == 1; });
    EXPECT_EQ(0, m_Reactor.m_nNotified);  // a sent event wakes nobody
    for (int i = 1; i < 12; ++i)
        PostTo(m_Reactor, [&] { ++nRun; });
    EXPECT_EQ(1, m_Reactor.m_nNotified);  // for the first: a wake-up was under way for the others
    for (const int nAfter : {4, 9, 11}) {
        EXPECT_EQ(CM_OK, m_Reactor.ReportEvents());
        EXPECT_EQ(nAfter, nRun);
    }
    sender.join();
    EXPECT_EQ(3, m_Reactor.m_nNotified);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_Reactor.ReportEvents());

    PostTo(m_Reactor, [&] { PostTo(m_Reactor, [] {}); });
    EXPECT_EQ(CM_OK, m_Reactor.ReportEvents());
    EXPECT_EQ(5, m_Reactor.m_nNotified);  // by each post, and not again for what the event has left
}
