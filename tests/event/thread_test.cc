#include "talvo/event/thread.h"

#include "talvo/event/timer_queue_calendar.h"
#include "talvo/event/timer_queue_ordered_list.h"
#include "talvo/event/timer_wrapper_id.h"
#include "tests/support/event_helpers.h"
#include "tests/support/event_socket.h"

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

// Counts how often it is woken for events.
class CCountingReactor : public CCmReactorEpoll {
public:
    CmResult NotifyHandler(ACmEventHandler* aEh, long aMask) override {
        m_nWoken += aEh == nullptr;
        return CCmReactorEpoll::NotifyHandler(aEh, aMask);
    }
    std::atomic<int> m_nWoken{0};
};

}  // namespace

// A program built against the interface calls by the number of the slot; a member pointer begins with its offset.
TEST(ThreadTest, CreateIsTheFirstVirtualOperation) {
    const auto pCreate = &ACmThread::Create;
    ptrdiff_t nOffset = 0;
    std::memcpy(&nOffset, &pCreate, sizeof(nOffset));
    EXPECT_EQ(0u, static_cast<size_t>(nOffset) / sizeof(void*));
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

TEST(ThreadTest, ACallbackCannotEndTheMainThread) {
    CMainThread main;
    CmResult rv = CM_OK;
    PostTo(main.GetReactor(), [&] {
        rv = main.Get()->Destory(CM_OK);
        main.Get()->OnThreadRun();
    });
    main.RunOnce();
    EXPECT_TRUE(main.Get()->GetLink().IsCurrentThread());
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
}

TEST(ThreadTest, QuietPostsWakeTheirThreadOnceBehindTheCallbacksThatMadeThem) {
    auto* pReactor = new CCountingReactor;
    CScopedThread thread(pReactor);
    CCmThreadLink& link = thread->GetLink();
    CEventFate fate;
    CCmEventQueueUsingMutex queue;
    CCmTimerQueueOrderedList timers(nullptr);
    CCmTimerQueueCalendar calendar(10, 1000, &queue);
    int nWokenInside = 0;
    const auto post = [&] {
        const int nWoken = pReactor->m_nWoken;
        EXPECT_EQ(CM_OK, link.PostEventQuietly(new CTestEvent(fate)));
        nWokenInside += pReactor->m_nWoken - nWoken;
    };
    CTestTimer handlers[] = {CTestTimer(post), CTestTimer(post), CTestTimer(post)};
    for (int i = 0; i < 3; ++i) {
        PostTo(queue, post);
        timers.ScheduleTimer(&handlers[i], nullptr, CCmTimeValue(), 1);
        calendar.ScheduleTimer(&handlers[i], nullptr, CCmTimeValue(), 1);
    }
    CCmEventQueueBase::EventsType events;
    queue.PopPendingEventsWithLock(events, 3, nullptr);
    queue.ProcessEvents(events);
    EXPECT_EQ(1, pReactor->m_nWoken);
    EXPECT_EQ(3, timers.CheckExpire(nullptr));
    EXPECT_EQ(2, pReactor->m_nWoken);
    EXPECT_EQ(3, calendar.Tick());
    EXPECT_EQ(3, pReactor->m_nWoken);
    EXPECT_EQ(0, nWokenInside);
    YieldUntil([&] { return fate.m_nFired == 9; });

    post();
    EXPECT_EQ(1, nWokenInside) << "there is nothing to wait for";
    YieldUntil([&] { return fate.m_nFired == 10; });
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
    }
}

// Whatever moment the thread ends at, each caller comes back, and each event is destroyed once.
TEST(ThreadTest, PostsAndCallsRaceWithTheEndOfTheThread) {
    for (int nRound = 0; nRound < 30; ++nRound) {
        CEventFate fate, called;
        std::atomic<int> nPosts{0}, nCalls{0}, nRun{0};
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
        posters.emplace_back([&, pLink = CCmRefPtrT<CCmThreadLink>(&thread->GetLink())] {
            for (CmResult rv = CM_ERROR_FOUND; rv == CM_ERROR_FOUND; ++nCalls) {
                rv = pLink->CallEvent(new CTestEvent([] { return CM_ERROR_FOUND; }, &called));  // the event's own result
                nRun += rv == CM_ERROR_FOUND;
            }
        });
        YieldUntil([&] { return nPosts > 50 && nRun > 0; });
        thread.End();
        for (std::thread& poster : posters)
            poster.join();
        EXPECT_EQ(nPosts, fate.m_nDestroyed);
        EXPECT_EQ(nCalls, called.m_nDestroyed);
        EXPECT_EQ(nRun, called.m_nFired);
    }
}

// The body finds its registration, is given up by Join, destroyed by its owner, and comes back to an object that is still
// there.
TEST(ThreadTest, HandlersAndTimersOfAnotherThreadAreRefused) {
    CMainThread main;
    CTestHandler handler(0);
    CTestTimer timer;
    for (const auto kind : {CScopedThread::REACTOR, CScopedThread::TASK}) {
        CScopedThread thread(kind);
        ICmTimerQueue* pTimers = thread->GetTimerQueue();
        EXPECT_EQ(CM_ERROR_FAILURE, pTimers->ScheduleTimer(&timer, nullptr, CCmTimeValue::s_tvZero, 1));
        EXPECT_EQ(CM_ERROR_FAILURE, pTimers->CancelTimer(&timer));
        CCmTimerWrapperID wrapper;
        const CCmTimeValue tvFar(1000);
        EXPECT_EQ(CM_OK, thread->GetLink().Call([&] { return wrapper.Schedule(nullptr, tvFar, 1); }));
        EXPECT_EQ(CM_ERROR_FAILURE, wrapper.Schedule(nullptr, tvFar, 1));
        EXPECT_EQ(CM_ERROR_FAILURE, wrapper.Cancel());
        EXPECT_EQ(CM_OK, thread->GetLink().Call([&] { return wrapper.Cancel(); }));
        ICmReactor* pReactor = thread->GetReactor();
        if (!pReactor)
            continue;
        EXPECT_EQ(CM_ERROR_FAILURE, pReactor->RegisterHandler(&handler, ACmEventHandler::READ_MASK));
        EXPECT_EQ(CM_ERROR_FAILURE, pReactor->RemoveHandler(&handler, ACmEventHandler::READ_MASK));
        EXPECT_EQ(CM_ERROR_FAILURE, pReactor->RunEventLoop());
    }
}

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
        EXPECT_EQ(CM_OK, pThread->Destory(CM_ERROR_TIMEOUT));
        EXPECT_EQ(CM_OK, pThread->Destory(CM_ERROR_TIMEOUT));  // no second time
        mayEnd.Signal();
        EXPECT_EQ(CM_OK, gone.Wait());
        EXPECT_EQ(pThread, pFound);
    }
}
