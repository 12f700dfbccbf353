#include "talvo/base/synchronization.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "talvo/base/atomic_operation.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/base/reference_control.h"

namespace {

template <class Counter>
void ExpectCounterRules() {
    Counter counter(5);
    EXPECT_EQ(counter++, 5);
    EXPECT_EQ(counter -= 3, 3);
    EXPECT_EQ(++counter, 4);
    EXPECT_EQ(counter--, 4);
    EXPECT_EQ(--counter, 2);
    EXPECT_EQ(counter += 10, 12);
    EXPECT_TRUE(counter == 12 && counter <= 12 && counter >= 12 && counter > 11 && counter < 13 && counter != 11);
    counter = 1L << 32 | 7;
    EXPECT_EQ(counter.GetValue(), 7);
}

void RunThreads(int aCount, const std::function<void()>& aBody) {
    std::vector<std::thread> threads;
    for (int n = 0; n < aCount; ++n)
        threads.emplace_back(aBody);
    for (auto& thread : threads)
        thread.join();
}

TEST(Atomic, BothKindsFollowTheSameRules) {
    ExpectCounterRules<CCmAtomicOperationT<CCmMutexThread>>();
    ExpectCounterRules<CCmAtomicOperationT<CCmMutexNullSingleThread>>();
}

TEST(Atomic, NoIncrementIsLostBetweenThreads) {
    CCmAtomicFunctions::init_functions();
    CCmAtomicOperationT<CCmMutexThread> counter;
    int32_t lPlain = 0;
    RunThreads(4, [&] {
        for (int n = 0; n < 10000; ++n) {
            ++counter;
            CCmAtomicFunctions::multi_cpu_increment(&lPlain);
        }
    });
    EXPECT_EQ(counter.GetValue(), 40000);
    EXPECT_EQ(lPlain, 40000);
    EXPECT_EQ(CCmAtomicFunctions::exchange_add_fn_(&lPlain, -1), 40000);
    EXPECT_EQ(CCmAtomicFunctions::decrement_fn_(&lPlain), 39998);
    EXPECT_EQ(CCmAtomicFunctions::exchange_fn_(&lPlain, 3), 39998);
    EXPECT_EQ(CCmAtomicFunctions::increment_fn_(&lPlain), 4);
}

TEST(Mutex, IsRecursiveAndTryLockNeverWaits) {
    CCmMutexThread mutex;
    CCmMutexGuardT<CCmMutexThread> guard(mutex);
    const auto tryLock = [&mutex]() CM_NO_THREAD_SAFETY_ANALYSIS {
        const CmResult rv = mutex.TryLock();
        if (rv == CM_OK)
            mutex.UnLock();
        return rv;
    };
    EXPECT_EQ(tryLock(), CM_OK);
    EXPECT_EQ(std::async(std::launch::async, tryLock).get(), CM_ERROR_FAILURE);
}

TEST(Event, AutoResetLetsOneWaitThroughAndManualResetAll) {
    CCmTimeValue tvNone;
    CCmEventThread once;
    EXPECT_EQ(once.Wait(&tvNone), CM_ERROR_TIMEOUT);
    once.Signal();
    once.Signal();
    EXPECT_EQ(once.Wait(), CM_OK);
    EXPECT_EQ(once.Wait(&tvNone), CM_ERROR_TIMEOUT);

    CCmEventThread always(TRUE, FALSE);
    std::atomic<int> nThrough{0};
    std::thread signaller([&] { always.Signal(); });
    RunThreads(3, [&] { nThrough += always.Wait() == CM_OK; });
    signaller.join();
    EXPECT_EQ(nThrough, 3);
    always.Reset();
    EXPECT_EQ(always.Wait(&tvNone), CM_ERROR_TIMEOUT);
}

TEST(ConditionVariable, HandsOverUnderItsMutex) {
    CCmMutexThread mutex;
    CCmConditionVariableThread condition(mutex);
    int nTurn = 0;
    std::thread other([&] {
        for (int n = 1; n < 100; n += 2) {
            CCmMutexGuardT<CCmMutexThread> guard(mutex);
            while (nTurn != n)
                condition.Wait();
            ++nTurn;
            condition.Broadcast();
        }
    });
    for (int n = 0; n < 100; n += 2) {
        CCmMutexGuardT<CCmMutexThread> guard(mutex);
        while (nTurn != n)
            condition.Wait();
        ++nTurn;
        condition.Broadcast();
    }
    other.join();
    EXPECT_EQ(nTurn, 100);
    CCmMutexGuardT<CCmMutexThread> guard(mutex);
    CCmTimeValue tvPast(-1);
    EXPECT_EQ(condition.Wait(&tvPast), CM_ERROR_TIMEOUT);
}

TEST(Semaphore, CountsUpToItsMaximum) {
    CCmTimeValue tvNone;
    CCmSemaphoreThread semaphore(1, 3);
    EXPECT_EQ(semaphore.TryLock(), CM_OK);
    EXPECT_EQ(semaphore.TryLock(), CM_ERROR_FAILURE);
    EXPECT_EQ(semaphore.Lock(&tvNone), CM_ERROR_TIMEOUT);
    EXPECT_EQ(semaphore.PostN(4), CM_ERROR_FAILURE);
    EXPECT_EQ(semaphore.PostN(3), CM_OK);
    EXPECT_EQ(semaphore.UnLock(), CM_ERROR_FAILURE);
    RunThreads(3, [&] { semaphore.Lock(); });
    EXPECT_EQ(semaphore.TryLock(), CM_ERROR_FAILURE);
}

class CCounted : public CCmReferenceControlT<CCmMutexThread> {
public:
    explicit CCounted(int& aDeleted) : m_nDeleted(aDeleted) {}
    ~CCounted() override { ++m_nDeleted; }

private:
    int& m_nDeleted;
};

TEST(RefPtr, TheLastOfManyThreadsDeletesOnce) {
    int nDeleted = 0;
    CCmRefPtrT<CCounted> pObject(new CCounted(nDeleted));
    RunThreads(4, [pObject] {
        for (int n = 0; n < 1000; ++n)
            CCmRefPtrT<CCounted> pCopy = pObject;
    });
    EXPECT_EQ(pObject->GetReference(), 1u);
    CCmRefPtrT<CCounted> pMoved = std::move(pObject);
    EXPECT_EQ(nDeleted, 0);
    pMoved = nullptr;
    EXPECT_EQ(nDeleted, 1);
}

}  // namespace
