#include <malloc.h>

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

size_t HeapInUse() { return mallinfo2().uordblks + mallinfo2().hblkhd; }

template <size_t SIZE, size_t ALIGN>
class alignas(ALIGN) CMarkedEvent : public ICmEvent {
public:
    explicit CMarkedEvent(unsigned char aMark) { m_Bytes.fill(aMark); }
    CmResult OnEventFire() override { return CM_OK; }
    bool IsWhole(unsigned char aMark) const {
        return std::ranges::all_of(m_Bytes, [aMark](unsigned char a) { return a == aMark; });
    }

private:
    std::array<unsigned char, SIZE> m_Bytes;
};

template <class Function>
void ForEachSize(Function aFunction) {
    aFunction.template operator()<1, 8>();
    aFunction.template operator()<57, 8>();
    aFunction.template operator()<1992, 8>();  // with the pointer to its functions the largest that shares a slab,
    aFunction.template operator()<1993, 8>();  // and just more
    aFunction.template operator()<5000, 8>();
    aFunction.template operator()<100, 128>();
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

TEST(EventQueueTest, BatchesComeInOrderAndSayWhatIsLeft) {
    CCmEventQueueUsingMutex queue;
    std::vector<int> ran;
    const auto post = [&](int aFirst, int aLast) {
        for (int n = aFirst; n <= aLast; ++n)
            PostTo(queue, [&ran, n] { ran.push_back(n); });
    };
    const auto run = [&](unsigned long aMaxCount) {
        CCmEventQueueBase::EventsType events;
        unsigned long ulRemain = 99;
        EXPECT_EQ(CM_OK, queue.PopPendingEventsWithLock(events, aMaxCount, &ulRemain));
        EXPECT_EQ(ulRemain, queue.GetPendingEventsCount());
        queue.ProcessEvents(events);
        return ulRemain;
    };
    post(1, 7);
    EXPECT_EQ(7u, run(0));
    EXPECT_EQ(2u, run(5));
    post(8, 40);
    EXPECT_EQ(34u, run(1));  // the rest is pending in two places
    EXPECT_EQ(29u, run(5));
    post(41, 60);
    EXPECT_EQ(0u, run(0xFFFFFFFF));
    CCmEventQueueBase::EventsType events;
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopPendingEventsWithLock(events, 5, nullptr));
    ASSERT_EQ(60u, ran.size());
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

TEST(EventQueueTest, AnEventWaitsInOneQueueAndMayBePostedAgainBehindIt) {
    struct CKept : public CTestEvent {
        using CTestEvent::CTestEvent;
        void OnDestorySelf() override {}
    };
    for (auto& pQueue : AllKinds()) {
        CCmEventQueueUsingMutex other;
        CEventFate fate;
        CKept event(fate);
        EXPECT_EQ(CM_OK, other.PostEvent(&event));
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pQueue->PostEvent(&event));
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pQueue->SendEvent(&event));
        other.DestoryPendingEvents();
        EXPECT_EQ(CM_OK, pQueue->PostEvent(&event));
        EXPECT_EQ(0, fate.m_nFired);
        pQueue->DestoryPendingEvents();
    }
}

TEST(EventQueueTest, ABurstLeavesNoMemoryBehind) {
    CCmEventQueueUsingMutex queue;
    CEventFate fate;
    const size_t stBefore = HeapInUse();
    for (int n = 0; n < 200000; ++n)
        queue.PostEvent(new CTestEvent(fate));
    for (CCmEventQueueBase::EventsType events; queue.PopPendingEventsWithLock(events, 5, nullptr) == CM_OK; events = {})
        queue.ProcessEvents(events);
    EXPECT_GT(stBefore + 500000, HeapInUse());
}

TEST(EventQueueTest, EventsOfAnySizeMayEndInAnotherThread) {
    ForEachSize([]<size_t SIZE, size_t ALIGN>() {
        for (int nRound = 0; nRound < 3; ++nRound) {
            std::vector<CMarkedEvent<SIZE, ALIGN>*> events;
            std::thread([&] {
                for (unsigned char n = 0; n < 200; ++n)
                    events.push_back(n % 2 ? new CMarkedEvent<SIZE, ALIGN>(n)
                                           : new (std::nothrow) CMarkedEvent<SIZE, ALIGN>(n));
            }).join();
            std::thread([&] {
                for (unsigned char n = 0; n < 200; ++n) {
                    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(events[n]) % ALIGN);
                    EXPECT_TRUE(events[n]->IsWhole(n));  // no two have shared a byte
                    events[n]->OnDestorySelf();
                }
            }).join();
        }
    });
}
