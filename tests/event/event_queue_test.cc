#include <gtest/gtest.h>

#include "talvo/event/event_queue_using_condition_variable.h"
#include "talvo/event/event_queue_using_mutex.h"
#include "tests/support/event_helpers.h"
#include "tests/support/trace_capture.h"

namespace {

class COpenQueue : public CCmEventQueueBase {
public:
    using CCmEventQueueBase::PopOnePendingEvent;
    using CCmEventQueueBase::PopPendingEvents;
};

std::vector<std::unique_ptr<CCmEventQueueBase>> AllKinds() {
    std::vector<std::unique_ptr<CCmEventQueueBase>> queues;
    queues.push_back(std::make_unique<CCmEventQueueBase>());
    queues.push_back(std::make_unique<CCmEventQueueUsingMutex>());
    queues.push_back(std::make_unique<CCmEventQueueUsingConditionVariable>());
    return queues;
}

}  // namespace

TEST(EventQueueTest, BatchesHoldTheOldestInOrderAndRunToTheirEnd) {
    COpenQueue queue;
    std::vector<int> order;
    CCmEventQueueBase::EventsType events;
    unsigned long ulRemain = 99;
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopPendingEvents(events, 5, &ulRemain));
    EXPECT_EQ(99u, ulRemain);

    for (int i = 1; i <= 7; ++i)
        PostTo(queue, [&order, &queue, i] {
            order.push_back(i);
            queue.Stop();  // does not cut a batch short
        });
    EXPECT_EQ(CM_OK, queue.PopPendingEvents(events, 0, &ulRemain));
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(7u, ulRemain);
    EXPECT_EQ(CM_OK, queue.PopPendingEvents(events, 5, &ulRemain));
    EXPECT_EQ(2u, ulRemain);
    EXPECT_EQ(2u, queue.GetPendingEventsCount());
    EXPECT_EQ(CM_OK, queue.ProcessEvents(events));
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4, 5}), order);

    ICmEvent* pEvent = nullptr;
    EXPECT_EQ(CM_OK, queue.PopOnePendingEvent(pEvent, &ulRemain));
    EXPECT_EQ(1u, ulRemain);
    EXPECT_EQ(CM_OK, queue.ProcessOneEvent(pEvent));
    EXPECT_EQ(6, order.back());
    EXPECT_EQ(CM_ERROR_INVALID_ARG, queue.ProcessOneEvent(nullptr));
    events.clear();
    EXPECT_EQ(CM_OK, queue.PopPendingEvents(events, 5, &ulRemain));
    EXPECT_EQ(0u, ulRemain);
    queue.ProcessEvents(events);
    EXPECT_EQ(7, order.back());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopOnePendingEvent(pEvent, nullptr));
}

TEST(EventQueueTest, AStoppedQueueDestroysWhatItRefusesAndWhatIsLeft) {
    for (auto& pQueue : AllKinds()) {
        CCmTraceCapture trace;
        EXPECT_EQ(CM_ERROR_INVALID_ARG, pQueue->PostEvent(nullptr));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, pQueue->SendEvent(nullptr));
        CEventFate pending;
        CEventFate posted;
        CEventFate sent;
        EXPECT_EQ(CM_OK, pQueue->PostEvent(new CTestEvent(pending)));
        pQueue->Reset2CurrentThreadId();
        pQueue->Stop();
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pQueue->PostEvent(new CTestEvent(posted)));
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pQueue->SendEvent(new CTestEvent(sent)));
        EXPECT_EQ(1, posted.m_nDestroyed);
        EXPECT_EQ(1, sent.m_nDestroyed);
        EXPECT_EQ(1u, trace.Count("CCmEventQueueBase::PostEvent, has been stopped. this="));
        EXPECT_EQ(1u, trace.Count("CCmEventQueueBase::SendEvent, has been stopped. this="));

        EXPECT_EQ(1u, pQueue->GetPendingEventsCount());
        EXPECT_EQ(0, pending.m_nDestroyed);
        pQueue.reset();
        EXPECT_EQ(1, pending.m_nDestroyed);
        EXPECT_EQ(0, pending.m_nFired + posted.m_nFired + sent.m_nFired);
    }
}

TEST(EventQueueTest, OwnersSendRunsAheadOfWhatIsPending) {
    for (auto& pQueue : AllKinds()) {
        pQueue->Reset2CurrentThreadId();
        CEventFate pending;
        CEventFate sent;
        pQueue->PostEvent(new CTestEvent(pending));
        EXPECT_EQ(CM_ERROR_FOUND, pQueue->SendEvent(new CTestEvent([] { return CM_ERROR_FOUND; }, &sent)));
        EXPECT_EQ(1, sent.m_nFired);
        EXPECT_EQ(1, sent.m_nDestroyed);
        EXPECT_EQ(0, pending.m_nFired);
        pQueue.reset();
    }
}

TEST(EventQueueTest, AnEventMayPostWhileItIsDestroyed) {
    class CPosting : public CTestEvent {
    public:
        CPosting(ICmEventQueue& aQueue, CEventFate& aFate) : CTestEvent(aFate), m_Queue(aQueue), m_Fate(aFate) {}
        ~CPosting() override { m_Queue.PostEvent(new CTestEvent(m_Fate)); }

    private:
        ICmEventQueue& m_Queue;
        CEventFate& m_Fate;
    };
    for (auto& pQueue : AllKinds()) {
        CEventFate fate;
        pQueue->PostEvent(new CPosting(*pQueue, fate));
        pQueue->DestoryPendingEvents();
        EXPECT_EQ(2, fate.m_nDestroyed);
        EXPECT_EQ(0u, pQueue->GetPendingEventsCount());
    }
}

TEST(EventQueueTest, PopOrWaitComesBackEmptyWithoutAnErrorLine) {
    CCmEventQueueUsingConditionVariable queue;
    CCmTraceCapture trace;
    CCmEventQueueBase::EventsType events;
    CCmTimeValue tvZero;
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopOrWaitPendingEvents(events, &tvZero, 5));
    EXPECT_FALSE(trace.Contains("PopOrWaitPendingEvents"));
    PostTo(queue, [] {});
    EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr, 5));  // does not wait: something is there
    queue.ProcessEvents(events);
}

// Each thread's events run in its order, none is lost, and a waiting owner is woken.
TEST(EventQueueTest, ManyThreadsPostToAWaitingOwner) {
    constexpr int THREADS = 4;
    constexpr int EVENTS = 2000;
    CCmEventQueueUsingConditionVariable queue;
    std::vector<int> next(THREADS, 0);
    int nOutOfOrder = 0;
    std::vector<std::thread> threads;
    for (size_t stThread = 0; stThread < THREADS; ++stThread) {
        threads.emplace_back([&, stThread] {
            for (int i = 0; i < EVENTS; ++i)
                PostTo(queue, [&, stThread, i] { nOutOfOrder += next[stThread]++ != i; });
        });
    }
    for (size_t stDone = 0; stDone < THREADS * EVENTS;) {
        CCmEventQueueBase::EventsType events;
        if (queue.PopOrWaitPendingEvents(events, nullptr, 7) == CM_OK) {
            EXPECT_LE(events.size(), 7u);
            stDone += events.size();
            queue.ProcessEvents(events);
        }
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, nOutOfOrder);
    EXPECT_EQ(0u, queue.GetPendingEventsCount());
}
