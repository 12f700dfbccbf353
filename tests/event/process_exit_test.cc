#include <gtest/gtest.h>

#include <cstdlib>

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

void ExitInTheMainLoop() {
    StartNetworkThread();
    KeepBusy();
    PostTo(*Manager().GetThreadEventQueue(CCmThreadManager::TT_MAIN), [] { exit(5); });
    Manager().GetThread(CCmThreadManager::TT_MAIN)->OnThreadRun();
}

CCmEventThread& MayGoOn() {
    static CCmEventThread& s_Event = *new CCmEventThread;
    return s_Event;
}
CCmEventThread& WentOn() {
    static CCmEventThread& s_Event = *new CCmEventThread;
    return s_Event;
}

// A thread that Join gave up on and Destory took from the registry comes back when the clean-up at exit is over.
void ExitBeforeAThreadComesBack() {
    atexit([] {
        MayGoOn().Signal();
        WentOn().Wait();
    });
    CMainThread main;
    ACmThread* pThread = nullptr;
    Manager().CreateUserTaskThread(pThread);
    pThread->GetLink().PostEvent(new CTestEvent([pManager = &Manager()] {
        MayGoOn().Wait();
        pManager->GetThread(CCmThreadManager::TT_CURRENT);
        WentOn().Signal();
        return CM_OK;
    }));
    Manager().StopAllThreads();
    Manager().JoinAllThreads();
    pThread->Destory(CM_OK);
    main.Get()->Destory(CM_OK);
    exit(6);
}

void ExitAfterAnOrderlyEnd() {
    ACmThread* pThread = StartNetworkThread();
    Manager().StopAllThreads();
    while (pThread->Join() != CM_OK) {
    }
    pThread->Destory(CM_OK);
    Manager().GetThread(CCmThreadManager::TT_MAIN)->Destory(CM_OK);
    CCmThreadManager::CleanupOnlyOne();  // by hand; the one at exit finds nothing
    exit(7);
}

}  // namespace

TEST(ProcessExitDeathTest, EndsCleanlyFromWhereverItIs) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(ExitWithoutShutdown(), testing::ExitedWithCode(3), "");
    EXPECT_EXIT(ExitInACallback(), testing::ExitedWithCode(4), "");
    EXPECT_EXIT(ExitInTheMainLoop(), testing::ExitedWithCode(5), "");
    EXPECT_EXIT(ExitBeforeAThreadComesBack(), testing::ExitedWithCode(6), "");
    EXPECT_EXIT(ExitAfterAnOrderlyEnd(), testing::ExitedWithCode(7), "");
}
