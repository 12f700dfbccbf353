#include <stdexcept>

#include "talvo/base/trace.h"
#include "talvo/event/precise_timer_manager.h"
#include "tests/support/event_helpers.h"

namespace {

CCmThreadManager& Manager() { return *CCmThreadManager::Instance(); }

ACmThread* StartNetworkThread() {
    ACmThread* pThread = nullptr;
    Manager().InitMainThread(0, nullptr);
    Manager().CreateReactorThread(CCmThreadManager::TT_NETWORK, CCmThreadManager::CreateNetworkReactor(), pThread);
    return pThread;
}

// Keeps the network thread busy with the registry, its timers and its queue, through the whole end of the process.
void KeepBusy() {
    Manager().GetThread(CCmThreadManager::TT_NETWORK)->GetLink().PostEvent(new CTestEvent([] {
        KeepBusy();
        return CM_OK;
    }));
}

void ExitWithoutShutdown() {
    StartNetworkThread();
    ACmThread* pUser = nullptr;
    Manager().CreateUserTaskThread(pUser);
    KeepBusy();
    exit(3);
}

void ExitInACallback() {
    StartNetworkThread()->GetLink().PostEvent(new CTestEvent([]() -> CmResult { exit(4); }));
    KeepBusy();
    Manager().GetThread(CCmThreadManager::TT_MAIN)->OnThreadRun();
}

// A thread that Join gave up on and Destory took from the registry comes back when the clean-up at exit is over.
void ExitBeforeAThreadComesBack() {
    static CCmEventThread& s_MayGoOn = *new CCmEventThread;
    static CCmEventThread& s_WentOn = *new CCmEventThread;
    atexit([] {
        s_MayGoOn.Signal();
        s_WentOn.Wait();
    });
    CMainThread main;
    ACmThread* pThread = nullptr;
    Manager().CreateUserTaskThread(pThread);
    pThread->GetLink().PostEvent(new CTestEvent([pManager = &Manager()] {
        s_MayGoOn.Wait();
        pManager->GetThread(CCmThreadManager::TT_CURRENT);
        s_WentOn.Signal();
        return CM_OK;
    }));
    Manager().StopAllThreads();
    Manager().JoinAllThreads();
    pThread->Destory(CM_OK);
    main.Get()->Destory(CM_OK);
    exit(6);
}

// Ends with 7 if the calendar refuses timers and can be released.
void UseACalendarAfterTheCleanUp() {
    const CMainThread main;
    CTestTimer timer;
    CCmPreciseTimerQueue& queue = *CCmPreciseTimerManager::Instance()->GetTimerQueue();
    const auto schedule = [&] { return queue.ScheduleTimer(&timer, nullptr, CCmTimeValue(60), 1); };
    const CmResult before = schedule();
    CCmCleanUpBase::CleanupAll();
    exit(before == CM_OK && schedule() == CM_ERROR_NOT_INITIALIZED && queue.ReleaseReference() == 0 ? 7 : 1);
}

// The trace goes to where a death test looks. Null: in a timer of the main thread.
void ThrowInACallback(const CScopedThread::EKind* aKind) {
    CCmTrace::SetFile({"/dev/stderr", FALSE, 0, 100});
    CCmTrace::Enable(TRUE);
    const CMainThread main;
    CTestTimer timer([] { throw 1; });
    if (aKind)
        CScopedThread(*aKind)->GetLink().Call([]() -> CmResult { throw std::runtime_error("thrown on purpose"); });
    main.GetReactor().ScheduleTimer(&timer, nullptr, CCmTimeValue::s_tvZero, 1);
    main.Get()->OnThreadRun();
}

}  // namespace

TEST(ProcessExitDeathTest, EndsCleanlyFromWhereverItIs) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(ExitWithoutShutdown(), testing::ExitedWithCode(3), "");
    EXPECT_EXIT(ExitInACallback(), testing::ExitedWithCode(4), "");
    EXPECT_EXIT(ExitBeforeAThreadComesBack(), testing::ExitedWithCode(6), "");
    EXPECT_EXIT(UseACalendarAfterTheCleanUp(), testing::ExitedWithCode(7), "");
}

TEST(ProcessExitDeathTest, AnExceptionThatLeavesACallbackIsTracedAndEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const auto kind : {CScopedThread::REACTOR, CScopedThread::TASK, CScopedThread::EVENT_QUEUE_ONLY})
        EXPECT_DEATH(ThrowInACallback(&kind), "left a callback, the process ends. what=thrown on purpose");
    EXPECT_DEATH(ThrowInACallback(nullptr), "left a callback, the process ends. what=not a std::exception");
}
