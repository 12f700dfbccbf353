#include "talvo/base/synchronization.h"

#include "tests/support/test.h"

TEST(Semaphore, CountsUpToItsMaximum) {
    CCmSemaphoreThread semaphore(0, 3);
    EXPECT_EQ(semaphore.PostN(4), CM_ERROR_FAILURE);
    EXPECT_EQ(semaphore.PostN(3), CM_OK);
    EXPECT_EQ(semaphore.UnLock(), CM_ERROR_FAILURE);
    for (int n = 0; n < 3; ++n)
        EXPECT_EQ(semaphore.TryLock(), CM_OK);
    EXPECT_EQ(semaphore.TryLock(), CM_ERROR_FAILURE);
}
