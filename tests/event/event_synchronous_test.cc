#include "talvo/event/event_synchronous.h"

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
