#include "talvo/event/event_synchronous.h"

#include "talvo/event/event_queue_using_condition_variable.h"
#include "talvo/event/event_queue_using_mutex.h"
#include "tests/support/event_helpers.h"

TEST(EventSynchronousTest, ASenderWhoseQueueEndsFirstIsLetGo) {
    for (const bool bDies : {false, true}) {
        auto pQueue = std::make_unique<CCmEventQueueUsingMutex>();  // a post lets go of it once the event is pending
        CEventFate fate;
        CmResult rv = CM_OK;
        std::thread sender([&, pSentTo = pQueue.get()] { rv = pSentTo->SendEvent(new CTestEvent(fate)); });
        YieldUntil([&] { return pQueue->GetPendingEventsCount() > 0; });
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

// Whatever moment the queue ends at, every sender comes back, and its event was destroyed once.
TEST(EventSynchronousTest, SendersRaceWithTheEndOfTheQueue) {
    for (int nRound = 0; nRound < 30; ++nRound) {
        CCmEventQueueUsingConditionVariable queue;
        CEventFate fate;
        std::atomic<int> nSent{0};
        std::atomic<int> nRun{0};
        std::vector<std::thread> senders;
        for (int i = 0; i < 3; ++i) {
            senders.emplace_back([&] {
                for (CmResult rv = CM_ERROR_FOUND; rv == CM_ERROR_FOUND; ++nSent) {
                    rv = queue.SendEvent(new CTestEvent([] { return CM_ERROR_FOUND; }, &fate));  // the event's own result
                    nRun += rv == CM_ERROR_FOUND;
                    EXPECT_TRUE(rv == CM_ERROR_FOUND || rv == CM_ERROR_NOT_AVAILABLE || rv == CM_ERROR_NOT_INITIALIZED);
                }
            });
        }
        while (nRun < nRound) {
            CCmEventQueueBase::EventsType events;
            queue.PopOrWaitPendingEvents(events, nullptr, 100);
            queue.ProcessEvents(events);
        }
        queue.Stop();
        queue.DestoryPendingEvents();
        for (std::thread& sender : senders)
            sender.join();
        EXPECT_EQ(nSent, fate.m_nDestroyed);
        EXPECT_EQ(nRun, fate.m_nFired);
    }
}
