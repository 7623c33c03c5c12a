#include "Kiv/ActivityLock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

namespace {

TEST(ActivityLockTest, RelockAndForeignUnlockAreRefusedWithoutEffect) {
    Kiv::ActivityLock lock;
    ASSERT_EQ(lock.lock(), 0);
    EXPECT_EQ(lock.lock(), EDEADLK);
    int foreign = -1;
    std::thread([&] { foreign = lock.unlock(); }).join();
    EXPECT_EQ(foreign, EPERM);
    // One unlock releases it: neither refusal counted.
    EXPECT_EQ(lock.unlock(), 0);
    EXPECT_EQ(lock.unlock(), EPERM);
}

}  // namespace
