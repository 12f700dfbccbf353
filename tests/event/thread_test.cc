#include "talvo/event/thread.h"

#include <gtest/gtest.h>

#include "talvo/event/thread_reactor.h"
#include "talvo/event/thread_task.h"
#include "tests/support/event_helpers.h"
#include "tests/support/trace_capture.h"

namespace {

constexpr CScopedThread::EKind ALL_KINDS[] = {CScopedThread::REACTOR, CScopedThread::TASK, CScopedThread::EVENT_QUEUE_ONLY};

CCmThreadManager& Manager() { return *CCmThreadManager::Instance(); }

// A body of the test's choice. Says when the object is gone.
class CBodyThread : public ACmThread {
public:
    CBodyThread(std::function<void()> aBody, CCmEventThread* aGone) : m_Body(std::move(aBody)), m_pGone(aGone) {}
    ~CBodyThread() override {
        CloseLink();
        m_pGone->Signal();
    }
    void OnThreadRun() override { m_Body(); }
    CmResult Stop(CCmTimeValue*) override { return CM_OK; }

private:
    std::function<void()> m_Body;
    CCmEventThread* m_pGone;
};

}  // namespace

TEST(ThreadTest, EachKindOffersWhatItHasAndFindsItself) {
    for (const auto kind : ALL_KINDS) {
        CScopedThread thread(kind);
        const int nType = thread->GetThreadType();
        EXPECT_GT(nType, 1000);
        EXPECT_EQ(thread.Get(), Manager().GetThread(nType));
        EXPECT_EQ(kind == CScopedThread::REACTOR, Manager().GetThreadReactor(nType) != nullptr);
        EXPECT_EQ(kind != CScopedThread::EVENT_QUEUE_ONLY, Manager().GetThreadTimerQueue(nType) != nullptr);
        EXPECT_EQ(CM_ERROR_FOUND, thread->GetLink().Call([&] {
            EXPECT_EQ(thread.Get(), Manager().GetThread(CCmThreadManager::TT_CURRENT));
            EXPECT_TRUE(CCmThreadManager::IsEqualCurrentThread(nType));
            EXPECT_EQ(CM_ERROR_FAILURE, thread->Join());                                               // itself
            EXPECT_EQ(CM_ERROR_NOT_FOUND, thread->GetLink().Call([] { return CM_ERROR_NOT_FOUND; }));  // inline
            return CM_ERROR_FOUND;
        }));
        EXPECT_EQ(nullptr, Manager().GetThread(CCmThreadManager::TT_CURRENT));
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, thread->Create(nType + 1000));
        thread.End();
        EXPECT_EQ(nullptr, Manager().GetThread(nType));
    }
}

TEST(ThreadTest, TimersOfATaskFireBetweenEvents) {
    CScopedThread thread(CScopedThread::TASK);
    CCmEventThread done;
    CTestTimer third([&] { done.Signal(); });
    CTestTimer second([&] { thread->GetTimerQueue()->ScheduleTimer(&third, nullptr, CCmTimeValue(0, 1000), 1); });
    CTestTimer first([&] { PostTo(*thread->GetEventQueue(), [&] { second.OnTimeout(CCmTimeValue::s_tvZero, nullptr); }); });
    PostTo(*thread->GetEventQueue(),
           [&] { thread->GetTimerQueue()->ScheduleTimer(&first, nullptr, CCmTimeValue::s_tvZero, 1); });
    EXPECT_EQ(CM_OK, done.Wait());
}

TEST(ThreadTest, CreateRefusesWhatIsWrong) {
    CCmTraceCapture trace;
    CScopedThread first(CScopedThread::TASK);
    ACmThread* pSecond = first.Get();
    EXPECT_EQ(CM_ERROR_FOUND,
              Manager().CreateUserTaskThread(pSecond, CCmThreadManager::TF_JOINABLE, TRUE, first->GetThreadType()));
    EXPECT_EQ(nullptr, pSecond);
    EXPECT_EQ(CM_ERROR_FOUND,
              Manager().CreateReactorThread(first->GetThreadType(), CCmThreadManager::CreateNetworkReactor(), pSecond));
    EXPECT_EQ(2u, trace.Count("CCmThreadManager::RegisterThread, have registered. aThread="));
    EXPECT_EQ(first.Get(), Manager().GetThread(first->GetThreadType()));  // untouched
    EXPECT_EQ(CM_ERROR_INVALID_ARG, Manager().CreateReactorThread(1, nullptr, pSecond));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, Manager().RegisterThread(nullptr));
    EXPECT_EQ(CM_ERROR_FOUND, Manager().RegisterThread(first.Get()));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, Manager().UnregisterThread(nullptr));

    auto* pThread = new CCmThreadReactor;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pThread->Create(-1));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pThread->Stop());
    EXPECT_EQ(CM_ERROR_FAILURE, pThread->Join());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, Manager().UnregisterThread(pThread));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pThread->AttachReactor(nullptr));
    EXPECT_EQ(CM_OK, pThread->AttachReactor(CCmThreadManager::CreateNetworkReactor()));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pThread->AttachReactor(pThread->GetReactor()));
    EXPECT_EQ(CM_OK, pThread->Destory(CM_OK));
}

TEST(ThreadTest, TheMainThreadIsAdoptedFirstAndAloneStopsTheOthers) {
    {
        CScopedThread early(CScopedThread::TASK);
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, Manager().InitMainThread(0, nullptr));
    }
    CMainThread main;
    EXPECT_EQ(main.Get(), Manager().GetThread(CCmThreadManager::TT_CURRENT));
    EXPECT_EQ(CM_ERROR_FAILURE, main.Get()->Join());
    CScopedThread user(CScopedThread::TASK);
    CScopedThread network(CScopedThread::REACTOR);
    EXPECT_EQ(CM_ERROR_FAILURE, user->GetLink().Call([] { return Manager().StopAllThreads(); }));
    EXPECT_EQ(CM_ERROR_FAILURE, user->GetLink().Call([] { return Manager().JoinAllThreads(); }));
    EXPECT_EQ(CM_OK, network->GetLink().Call([] { return CM_OK; }));  // it runs on
    EXPECT_EQ(CM_OK, Manager().StopAllThreads());
    EXPECT_EQ(CM_OK, Manager().JoinAllThreads());
    YieldUntil([&] { return user->GetLink().Call([] { return CM_OK; }) == CM_ERROR_NOT_AVAILABLE; });
    YieldUntil([&] { return network->GetLink().Call([] { return CM_OK; }) == CM_ERROR_NOT_AVAILABLE; });
    PostTo(main.GetReactor(), [&] { main.Get()->Stop(); });  // the main one was not stopped
    main.Get()->OnThreadRun();
}

// The mode is the whole process's: put back at the end for the tests that follow.
TEST(ThreadTest, TheMainThreadMayServeAsNetworkThread) {
    const auto mode = Manager().GetNetworkThreadMode();
    EXPECT_EQ(CM_OK, Manager().SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_MAIN));
    {
        CMainThread main;
        EXPECT_EQ(main.Get(), Manager().GetThread(CCmThreadManager::TT_NETWORK));
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, Manager().SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_OWN));
    }
    EXPECT_EQ(CM_OK, Manager().SetNetworkThreadMode(mode));
}

TEST(ThreadTest, WhatWasPostedBehindTheStopIsDestroyedUnrun) {
    for (const auto kind : ALL_KINDS) {
        CEventFate before;
        CEventFate behind;
        CScopedThread thread(kind);
        CCmRefPtrT<CCmThreadLink> pLink(&thread->GetLink());
        pLink->Call([&] {
            pLink->PostEvent(new CTestEvent(before));
            thread->Stop();
            for (int i = 0; i < 100; ++i)  // more than one batch, and than one turn of a reactor
                pLink->PostEvent(new CTestEvent(behind));
            return CM_OK;
        });
        YieldUntil([&] { return thread->Join() == CM_OK; });  // at the thread's end, not only at its object's
        EXPECT_EQ(1, before.m_nFired);
        EXPECT_EQ(kind == CScopedThread::EVENT_QUEUE_ONLY, behind.m_nFired == 100);  // whose batches are whole
        EXPECT_EQ(100, behind.m_nDestroyed);
        CEventFate late;
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pLink->PostEvent(new CTestEvent(late)));
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pLink->CallEvent(new CTestEvent(late)));
        EXPECT_EQ(2, late.m_nDestroyed);
        EXPECT_EQ(0, late.m_nFired);
        EXPECT_EQ(CM_ERROR_INVALID_ARG, pLink->PostEvent(nullptr));
    }
}

TEST(ThreadTest, PostsThroughALinkRaceWithTheEndOfTheThread) {
    for (int nRound = 0; nRound < 20; ++nRound) {
        CEventFate fate;
        std::atomic<int> nPosts{0};
        CScopedThread thread(ALL_KINDS[nRound % 3]);
        std::vector<std::thread> posters;
        for (int i = 0; i < 2; ++i) {
            posters.emplace_back([&nPosts, &fate, pLink = CCmRefPtrT<CCmThreadLink>(&thread->GetLink())] {
                do
                    ++nPosts;
                while (pLink->PostEvent(new CTestEvent(fate)) == CM_OK);
                EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pLink->Call([] { return CM_OK; }));
            });
        }
        YieldUntil([&] { return nPosts > 50; });
        thread.End();
        for (std::thread& poster : posters)
            poster.join();
        EXPECT_EQ(nPosts, fate.m_nDestroyed);
    }
}

TEST(ThreadTest, TenantsLetGoBeforeTheThreadsQueuesClose) {
    struct CTenant : public CCmThreadTenant {
        explicit CTenant(std::function<void()> aEnd) : m_End(std::move(aEnd)) {}
        void OnThreadEnd() override { m_End(); }
        std::function<void()> m_End;
    };
    for (const auto kind : ALL_KINDS) {
        CScopedThread thread(kind);
        CCmRefPtrT<CCmThreadLink> pLink(&thread->GetLink());
        CEventFate posted;
        std::string strEnded;
        DWORD dwEndedIn = 0;
        CTenant left([&] { strEnded += "left"; });
        CTenant neighbour([&] { strEnded += "neighbour"; });
        CTenant stays([&] {
            strEnded += "stays";
            dwEndedIn = cm_thread_self_id();
            pLink->Leave(neighbour);
            EXPECT_EQ(CM_OK, pLink->PostEvent(new CTestEvent(posted)));  // the queue is there, and drops it
        });
        const DWORD dwThread = thread->GetThreadId();
        pLink->Call([&] {
            for (CTenant* pTenant : {&left, &neighbour, &stays})
                EXPECT_EQ(CM_OK, pLink->Join(*pTenant));
            EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pLink->Join(stays));
            pLink->Leave(left);
            CTenant shortLived([&] { strEnded += "dead"; });
            pLink->Join(shortLived);
            return CM_OK;
        });
        thread.End();
        EXPECT_EQ("stays", strEnded);
        EXPECT_EQ(dwThread, dwEndedIn);
        EXPECT_EQ(0, posted.m_nFired);
        EXPECT_EQ(1, posted.m_nDestroyed);
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pLink->Join(left));
    }
}

// The body finds its registration, is given up by Join, destroyed by its owner, and comes back to an object that is still
// there.
TEST(ThreadTest, AThreadThatJoinGaveUpOnComesBackLater) {
    for (const auto flag : {CCmThreadManager::TF_JOINABLE, CCmThreadManager::TF_DETACHED}) {
        CCmTraceCapture trace;
        CCmEventThread mayEnd;
        CCmEventThread gone;
        ACmThread* pFound = nullptr;
        CBodyThread* pThread = nullptr;
        pThread = new CBodyThread(
            [&] {
                pFound = Manager().GetThread(CCmThreadManager::TT_CURRENT);
                mayEnd.Wait();
                EXPECT_EQ(nullptr, Manager().GetThread(CCmThreadManager::TT_CURRENT));
                EXPECT_TRUE(pThread->GetLink().IsCurrentThread());
            },
            &gone);
        EXPECT_EQ(CM_OK, pThread->Create(Manager().GetAndIncreamUserType(), flag));
        EXPECT_EQ(CM_ERROR_TIMEOUT, pThread->Join());
        EXPECT_TRUE(trace.Contains("ACmThread::Join, WaitForSingleObject() timeout! this="));
        EXPECT_EQ(CM_ERROR_TIMEOUT, pThread->Join());
        EXPECT_EQ(CM_OK, pThread->Destory(CM_ERROR_TIMEOUT));
        mayEnd.Signal();
        EXPECT_EQ(CM_OK, gone.Wait());
        EXPECT_EQ(pThread, pFound);
    }
}

TEST(ThreadTest, ADetachedThreadGoesWithWhicheverComesLast) {
    for (const bool bEndsFirst : {false, true}) {
        CCmEventThread mayEnd;
        CCmEventThread gone;
        auto* pThread = new CBodyThread([&] { mayEnd.Wait(); }, &gone);
        EXPECT_EQ(CM_OK, pThread->Create(Manager().GetAndIncreamUserType(), CCmThreadManager::TF_DETACHED));
        if (bEndsFirst) {
            mayEnd.Signal();
            YieldUntil([=] { return pThread->Join() == CM_OK; });
        }
        CCmTimeValue tvNow;
        EXPECT_EQ(CM_ERROR_TIMEOUT, gone.Wait(&tvNow));
        pThread->Destory(CM_OK);
        mayEnd.Signal();
        EXPECT_EQ(CM_OK, gone.Wait());
    }
}
