#include <Velik/Exception.h>
#include <Velik/Locking.h>
#include <Velik/Thread.h>

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "foundation/ThrowingAsserts.h"

namespace {

using Velik::Locking::ConditionalGuard;
using Velik::Locking::Lock;
using Velik::Locking::RecursiveLock;
using VelikTest::assertMessageOf;

const std::string heldBy = "attempting to release a lock that is not currently held, owner:";

std::string me() {
    return Velik::toThreadIdString(std::this_thread::get_id());
}

template <typename Body>
auto onOtherThread(Body body) {
    return std::async(std::launch::async, body).get();
}

// The unlock assertion as raised on another thread, with that thread's id.
template <typename L>
std::pair<std::string, std::string> unlockElsewhere(L& lock) {
    return onOtherThread(
        [&] { return std::make_pair(assertMessageOf([&] { lock.unlock(); }), me()); });
}

TEST(LockTest, OwnedOnlyByTheLockingThread) {
    Lock lock;
    ASSERT_TRUE(lock.try_lock());
    EXPECT_TRUE(lock.owns_lock());
    EXPECT_FALSE(onOtherThread([&] { return lock.owns_lock() || lock.try_lock(); }));
    lock.unlock();
    EXPECT_FALSE(lock.owns_lock());
    EXPECT_EQ(lock.owner(), std::thread::id());
}

TEST(LockTest, ReleasingAFreeOrForeignLockAssertsWithBothIds) {
    Lock lock;
    EXPECT_EQ(assertMessageOf([&] { lock.unlock(); }),
              "LockingCpp:32: Lock::unlock() " + heldBy +
                  "thread::id of a non-executing thread me:" + me());
    lock.lock();
    const auto [message, other] = unlockElsewhere(lock);
    EXPECT_EQ(message, "LockingCpp:32: Lock::unlock() " + heldBy + me() + " me:" + other);
    EXPECT_TRUE(lock.owns_lock());
    lock.unlock();
}

TEST(RecursiveLockTest, OwnerSurvivesUntilTheOutermostUnlock) {
    RecursiveLock lock;
    lock.lock();
    lock.lock();
    ASSERT_TRUE(lock.try_lock());
    EXPECT_EQ(lock.lockCount(), 3u);
    EXPECT_FALSE(onOtherThread([&] { return lock.try_lock(); }));
    const auto [message, other] = unlockElsewhere(lock);
    EXPECT_EQ(message, "LockingCpp:64: RecursiveLock::unlock() " + heldBy + me() + " me:" + other +
                           " lockCount:3");
    for (unsigned left : {2u, 1u}) {
        lock.unlock();
        EXPECT_TRUE(lock.owns_lock());
        EXPECT_EQ(lock.lockCount(), left);
    }
    lock.unlock();
    EXPECT_EQ(lock.owner(), std::thread::id());
    EXPECT_EQ(assertMessageOf([&] { lock.unlock(); }),
              "LockingCpp:64: RecursiveLock::unlock() " + heldBy +
                  "thread::id of a non-executing thread me:" + me() + " lockCount:0");
}

TEST(ConditionalGuardTest, ReleasesOnlyWhenAskedAndStillHeld) {
    VelikTest::ThrowingAsserts throwing;  // a second release would assert
    Lock lock;
    {
        ConditionalGuard guard(lock);
        EXPECT_TRUE(lock.owns_lock());
    }
    EXPECT_FALSE(lock.owns_lock());
    {
        ConditionalGuard guard(lock);
        guard.releaseIs(false);
    }
    EXPECT_TRUE(lock.owns_lock());  // handed on
    lock.unlock();
    {
        ConditionalGuard guard(lock);
        lock.unlock();
    }
    EXPECT_FALSE(lock.owns_lock());
}

}  // namespace
