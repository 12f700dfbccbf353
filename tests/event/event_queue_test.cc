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

    std::array<unsigned char, SIZE> m_Bytes;
};

// Made in one thread, destroyed in another; no two may share a byte.
template <size_t SIZE, size_t ALIGN = 8>
void MoveEvents() {
    std::vector<CMarkedEvent<SIZE, ALIGN>*> events;
    std::thread([&] {
        for (unsigned char n = 0; n < 200; ++n)
            events.push_back(n % 2 ? new CMarkedEvent<SIZE, ALIGN>(n) : new (std::nothrow) CMarkedEvent<SIZE, ALIGN>(n));
    }).join();
    std::thread([&] {
        for (unsigned char n = 0; n < 200; ++n) {
            EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(events[n]) % ALIGN);
            EXPECT_EQ(SIZE, static_cast<size_t>(std::ranges::count(events[n]->m_Bytes, n)));
            events[n]->OnDestorySelf();
        }
    }).join();
}

}  // namespace

TEST(EventQueueTest, EachEventWaitsInOneQueueAndIsDestroyedOnceAlsoByAStoppedOne) {
    struct CKept : public CTestEvent {
        using CTestEvent::CTestEvent;
        void OnDestorySelf() override {}
    };
    struct CPosting : public CTestEvent {
        CPosting(ICmEventQueue& aQueue, CEventFate& aFate) : CTestEvent(aFate), m_Queue(aQueue), m_Fate(aFate) {}
        ~CPosting() override { m_Queue.PostEvent(new CTestEvent(m_Fate)); }
        ICmEventQueue& m_Queue;
        CEventFate& m_Fate;
    };
    for (auto& pQueue : AllKinds()) {
        CCmEventQueueUsingMutex other;
        CEventFate kept, posting, pending, refused;
        CKept event(kept);
        EXPECT_EQ(CM_OK, other.PostEvent(&event));
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pQueue->PostEvent(&event));
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pQueue->SendEvent(&event));
        other.DestoryPendingEvents();
        EXPECT_EQ(CM_OK, pQueue->PostEvent(&event));
        pQueue->PostEvent(new CPosting(*pQueue, posting));
        pQueue->DestoryPendingEvents();
        EXPECT_EQ(2, posting.m_nDestroyed);

        EXPECT_EQ(CM_OK, pQueue->PostEvent(new CTestEvent(pending)));
        pQueue->Reset2CurrentThreadId();
        pQueue->Stop();
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pQueue->PostEvent(new CTestEvent(refused)));
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pQueue->SendEvent(new CTestEvent(refused)));
        EXPECT_EQ(2, refused.m_nDestroyed);
        EXPECT_EQ(0, pending.m_nDestroyed);
        pQueue.reset();
        EXPECT_EQ(1, pending.m_nDestroyed);
        EXPECT_EQ(0, kept.m_nFired + posting.m_nFired + pending.m_nFired + refused.m_nFired);
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
