#include "talvo/base/reference_control.h"

#include <gtest/gtest.h>

#include "talvo/base/ref_ptr.h"
#include "talvo/event/event_delete.h"
#include "talvo/event/timer_delete.h"
#include "tests/support/event_helpers.h"
#include "tests/support/trace_capture.h"

namespace {

class CLate : public CCmReferenceControlTimerDeleteT<CCmMutexThread> {
public:
    explicit CLate(std::atomic<int>& aDead, CLate* aChild = nullptr) : m_Dead(aDead), m_pChild(aChild) {}
    ~CLate() override { ++m_Dead; }

private:
    std::atomic<int>& m_Dead;
    CCmRefPtrT<CLate> m_pChild;
};

struct CTarget {
    explicit CTarget(std::atomic<int>& aDead) : m_Dead(aDead) {}
    ~CTarget() {
        m_dwThread = cm_thread_self_id();
        ++m_Dead;
    }
    std::atomic<int>& m_Dead;
    static std::atomic<DWORD> m_dwThread;  // where the last one died
};
std::atomic<DWORD> CTarget::m_dwThread{0};

}  // namespace

TEST(ReferenceControlTest, TheTimerDeletesAfterTheCallHasReturned) {
    std::atomic<int> nDead{0};
    CMainThread main;
    PostTo(main.GetReactor(), [&] {
        CLate* pObject = new CLate(nDead);
        CCmRefPtrT<CLate> pHolder(pObject);
        pHolder.Reset();
        EXPECT_EQ(0, nDead);
        pObject->AddReference();  // somebody on the stack still used it: deleted once for all that
        pObject->ReleaseReference();
        EXPECT_EQ(0, nDead);
    });
    main.RunOnce();
    main.RunOnce();
    EXPECT_EQ(1, nDead);
}

TEST(ReferenceControlTest, WithoutATimerQueueDeletionIsAtOnceAndLogged) {
    CCmTraceCapture trace;
    std::atomic<int> nDead{0};
    CCmRefPtrT<CLate>(new CLate(nDead)).Reset();
    EXPECT_EQ(1, nDead);
    EXPECT_TRUE(trace.Contains("CCmTimerDeleteT::Launch, ScheduleTimer() failde! rv=10005"));
}

// Whichever thread class ends first, and also what dies only because another object did.
TEST(ReferenceControlTest, PendingDeletionsHappenWhenTheThreadEnds) {
    for (const auto kind : {CScopedThread::REACTOR, CScopedThread::TASK}) {
        std::atomic<int> nDead{0};
        {
            CScopedThread thread(kind);
            thread->GetLink().Call([&] {
                thread->Stop();
                thread->GetLink().PostEvent(new CCmEventDeleteT<CTarget>(new CTarget(nDead)));
                CCmRefPtrT<CLate>(new CLate(nDead, new CLate(nDead))).Reset();
                return CM_OK;
            });
            thread.End();
        }
        EXPECT_EQ(3, nDead);
    }
}

TEST(ReferenceControlTest, TheEventDeletesBehindEarlierPostsOrAtOnceWhenTheThreadIsGone) {
    std::atomic<int> nDead{0};
    int nDeadBefore = -1;
    CScopedThread thread(CScopedThread::REACTOR);
    const DWORD dwThread = thread->GetThreadId();
    CCmRefPtrT<CCmThreadLink> pLink(&thread->GetLink());
    CCmEventThread mayRun;
    pLink->PostEvent(new CTestEvent([&] {
        mayRun.Wait();
        nDeadBefore = nDead;
        return CM_OK;
    }));
    auto* pDelete = new CCmEventDeleteT<CTarget>(new CTarget(nDead));
    EXPECT_EQ(CM_OK, pDelete->Launch(*pLink));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pDelete->Launch(*pLink));
    mayRun.Signal();
    pLink->Call([] { return CM_OK; });
    EXPECT_EQ(0, nDeadBefore);
    EXPECT_EQ(1, nDead);
    EXPECT_EQ(dwThread, CTarget::m_dwThread);

    thread.End();
    CCmTraceCapture trace;
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, (new CCmEventDeleteT<CTarget>(new CTarget(nDead)))->Launch(*pLink));
    EXPECT_EQ(2, nDead);
    EXPECT_EQ(cm_thread_self_id(), CTarget::m_dwThread);
    EXPECT_TRUE(trace.Contains("CCmEventDeleteT::Launch, PostEvent() failed! rv=10009"));
}
