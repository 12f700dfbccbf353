#include "talvo/base/synchronization.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "talvo/base/atomic_operation.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/base/reference_control.h"

namespace {

void RunThreads(int aCount, const std::function<void()>& aBody) {
    std::vector<std::thread> threads;
    for (int n = 0; n < aCount; ++n)
        threads.emplace_back(aBody);
    for (auto& thread : threads)
        thread.join();
}

struct CCounted : public CCmReferenceControlT<CCmMutexThread> {
    ~CCounted() override { ++s_nDeleted; }
    inline static std::atomic<int> s_nDeleted{0};
};

TEST(Atomic, NoCountIsLostBetweenThreadsAndTheLastReferenceDeletesOnce) {
    CCmAtomicOperationT<CCmMutexThread> counter;
    CCmRefPtrT<CCounted> pObject(new CCounted);
    RunThreads(4, [&, pMine = pObject] {
        for (int n = 0; n < 10000; ++n) {
            ++counter;
            CCmRefPtrT<CCounted> pCopy = pMine;
        }
    });
    EXPECT_EQ(counter.GetValue(), 40000);
    EXPECT_EQ(CCounted::s_nDeleted, 0);
    pObject = nullptr;
    EXPECT_EQ(CCounted::s_nDeleted, 1);
}

TEST(Semaphore, CountsUpToItsMaximum) {
    CCmSemaphoreThread semaphore(0, 3);
    EXPECT_EQ(semaphore.PostN(4), CM_ERROR_FAILURE);
    EXPECT_EQ(semaphore.PostN(3), CM_OK);
    EXPECT_EQ(semaphore.UnLock(), CM_ERROR_FAILURE);
    RunThreads(3, [&] { semaphore.Lock(); });
    EXPECT_EQ(semaphore.TryLock(), CM_ERROR_FAILURE);
}

}  // namespace
