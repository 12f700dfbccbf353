#include "talvo/event/event_synchronous.h"

#include <gtest/gtest.h>

#include "talvo/event/event_queue_using_condition_variable.h"
#include "talvo/event/event_queue_using_mutex.h"
#include "tests/support/event_helpers.h"

namespace {

using Queue = CCmEventQueueUsingConditionVariable;
using DyingQueue = CCmEventQueueUsingMutex;  // a post has let go of it as soon as the event is pending

// One batch, in the calling thread; waits for it.
void RunBatch(Queue& aQueue) {
    CCmEventQueueBase::EventsType events;
    aQueue.PopOrWaitPendingEvents(events, nullptr, 100);
    aQueue.ProcessEvents(events);
}

void WaitForSender(ICmEventQueue& aQueue) {
    YieldUntil([&] { return aQueue.GetPendingEventsCount() > 0; });
}

}  // namespace

TEST(EventSynchronousTest, TheSenderGetsTheEventsOwnResult) {
    Queue queue;
    queue.Reset2CurrentThreadId();
    const DWORD dwOwner = cm_thread_self_id();
    DWORD dwFiredIn = 0;
    CEventFate fate;
    CmResult rv = CM_OK;
    std::thread sender([&] {
        rv = queue.SendEvent(new CTestEvent(
            [&] {
                dwFiredIn = cm_thread_self_id();
                return CM_ERROR_FOUND;
            },
            &fate));
    });
    WaitForSender(queue);
    RunBatch(queue);
    sender.join();
    EXPECT_EQ(CM_ERROR_FOUND, rv);
    EXPECT_EQ(dwOwner, dwFiredIn);
    EXPECT_EQ(1, fate.m_nFired);
    EXPECT_EQ(1, fate.m_nDestroyed);
}

TEST(EventSynchronousTest, ASenderWhoseQueueEndsFirstIsLetGo) {
    for (const bool bDies : {false, true}) {
        auto pQueue = std::make_unique<DyingQueue>();
        CEventFate fate;
        CmResult rv = CM_OK;
        std::thread sender([&, pSentTo = pQueue.get()] { rv = pSentTo->SendEvent(new CTestEvent(fate)); });
        WaitForSender(*pQueue);
        pQueue->Stop();
        if (bDies)
            pQueue.reset();
        else
            pQueue->DestoryPendingEvents();
        sender.join();
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
        EXPECT_EQ(0, fate.m_nFired);
        EXPECT_EQ(1, fate.m_nDestroyed);
    }
}

TEST(EventSynchronousTest, NothingWrappedAndNothingToPostToAreResults) {
    Queue queue;
    auto* pEmpty = new CCmEventSynchronous(nullptr);
    queue.PostEvent(pEmpty);
    RunBatch(queue);
    EXPECT_EQ(CM_ERROR_NULL_POINTER, pEmpty->WaitResultAndDeleteThis());

    CEventFate fate;
    auto* pRefused = new CCmEventSynchronous(new CTestEvent(fate));
    queue.Stop();
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.PostEvent(pRefused));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pRefused->WaitResultAndDeleteThis());
    EXPECT_EQ(1, fate.m_nDestroyed);
}

// Whatever moment the queue ends at, every sender comes back, and its event was destroyed once.
TEST(EventSynchronousTest, SendersRaceWithTheEndOfTheQueue) {
    for (int nRound = 0; nRound < 30; ++nRound) {
        Queue queue;
        CEventFate fate;
        std::atomic<int> nSent{0};
        std::atomic<int> nRun{0};
        std::vector<std::thread> senders;
        for (int i = 0; i < 3; ++i) {
            senders.emplace_back([&] {
                for (CmResult rv = CM_ERROR_FOUND; rv == CM_ERROR_FOUND; ++nSent) {
                    rv = queue.SendEvent(new CTestEvent([] { return CM_ERROR_FOUND; }, &fate));
                    nRun += rv == CM_ERROR_FOUND;
                    EXPECT_TRUE(rv == CM_ERROR_FOUND || rv == CM_ERROR_NOT_AVAILABLE || rv == CM_ERROR_NOT_INITIALIZED);
                }
            });
        }
        while (nRun < nRound)
            RunBatch(queue);
        queue.Stop();
        queue.DestoryPendingEvents();
        for (std::thread& sender : senders)
            sender.join();
        EXPECT_EQ(nSent, fate.m_nDestroyed);
        EXPECT_EQ(nRun, fate.m_nFired);
    }
}
