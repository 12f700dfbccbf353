#include <gtest/gtest.h>

#include "talvo/event/event_queue_using_condition_variable.h"
#include "talvo/event/event_queue_using_mutex.h"
#include "tests/support/event_helpers.h"

namespace {

std::vector<std::unique_ptr<CCmEventQueueBase>> AllKinds() {
    std::vector<std::unique_ptr<CCmEventQueueBase>> queues;
    queues.push_back(std::make_unique<CCmEventQueueBase>());
    queues.push_back(std::make_unique<CCmEventQueueUsingMutex>());
    queues.push_back(std::make_unique<CCmEventQueueUsingConditionVariable>());
    return queues;
}

}  // namespace

TEST(EventQueueTest, AStoppedQueueDestroysWhatItRefusesAndWhatIsLeft) {
    for (auto& pQueue : AllKinds()) {
        CEventFate pending;
        CEventFate refused;
        EXPECT_EQ(CM_OK, pQueue->PostEvent(new CTestEvent(pending)));
        pQueue->Reset2CurrentThreadId();
        pQueue->Stop();
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pQueue->PostEvent(new CTestEvent(refused)));
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pQueue->SendEvent(new CTestEvent(refused)));
        EXPECT_EQ(2, refused.m_nDestroyed);
        EXPECT_EQ(0, pending.m_nDestroyed);
        pQueue.reset();
        EXPECT_EQ(1, pending.m_nDestroyed);
        EXPECT_EQ(0, pending.m_nFired + refused.m_nFired);
    }
}

TEST(EventQueueTest, AnEventMayPostWhileItIsDestroyed) {
    struct CPosting : public CTestEvent {
        CPosting(ICmEventQueue& aQueue, CEventFate& aFate) : CTestEvent(aFate), m_Queue(aQueue), m_Fate(aFate) {}
        ~CPosting() override { m_Queue.PostEvent(new CTestEvent(m_Fate)); }
        ICmEventQueue& m_Queue;
        CEventFate& m_Fate;
    };
    for (auto& pQueue : AllKinds()) {
        CEventFate fate;
        pQueue->PostEvent(new CPosting(*pQueue, fate));
        pQueue->DestoryPendingEvents();
        EXPECT_EQ(2, fate.m_nDestroyed);
    }
}
