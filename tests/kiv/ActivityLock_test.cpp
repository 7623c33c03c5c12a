#include "Kiv/ActivityLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "Kiv/ActivityManager.h"
#include "Kiv/Exception.h"

namespace {

TEST(ActivityLockTest, RelockByHolderReportsDeadlockAndTakesNothing) {
    Kiv::ActivityLock* lock = Kiv::activityManager()->activityLock();
    ASSERT_EQ(lock->lock(), 0);
    EXPECT_EQ(lock->lock(), EDEADLK);
    // A single unlock releases it: the failed re-lock counted for nothing.
    EXPECT_EQ(lock->unlock(), 0);
    EXPECT_EQ(lock->unlock(), EPERM);
}

TEST(ActivityLockTest, OtherThreadWaitsForTheHolderAndThenSucceeds) {
    Kiv::ActivityLock lock;
    ASSERT_EQ(lock.lock(), 0);
    std::atomic<bool> taken{false};
    int result = -1;
    int foreignUnlock = -1;
    std::thread other([&] {
        foreignUnlock = lock.unlock();  // not the holder
        result = lock.lock();
        taken = true;
        lock.unlock();
    });
    // The other thread cannot get in while we hold the lock; give it a moment
    // to try so the test would catch a lock that lets it through.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_FALSE(taken);
    EXPECT_EQ(lock.unlock(), 0);
    other.join();
    EXPECT_EQ(foreignUnlock, EPERM);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(taken);
}

TEST(ActivityLockTest, ExceptionsCarryTheErrorAndItsText) {
    const Kiv::LockException lockError("taking the lock", EINVAL);
    EXPECT_EQ(lockError.error(), EINVAL);
    EXPECT_EQ(std::string(lockError.what()),
              std::string("taking the lock: ") + std::strerror(EINVAL));
    const Kiv::SystemException systemError("epoll", EBADF);
    EXPECT_EQ(systemError.error(), EBADF);
    const Kiv::Exception& base = systemError;
    EXPECT_EQ(std::string(base.what()), std::string("epoll: ") + std::strerror(EBADF));
}

}  // namespace
