#include <Velik/Locking.h>
#include <Velik/Thread.h>

#include <gtest/gtest.h>

#include <future>

#include "foundation/ThrowingAsserts.h"

namespace {

using Velik::Locking::ConditionalGuard;
using VelikTest::assertMessageOf;

const std::string notHeld = "attempting to release a lock that is not currently held, owner:";
const std::string noOwner = "thread::id of a non-executing thread";

std::string me() {
    return Velik::toThreadIdString(std::this_thread::get_id());
}

template <typename Body>
auto onOtherThread(Body body) {
    return std::async(std::launch::async, body).get();
}

// The unlock assertion raised on another thread, with that thread's id.
template <typename L>
std::pair<std::string, std::string> unlockElsewhere(L& lock) {
    return onOtherThread(
        [&] { return std::make_pair(assertMessageOf([&] { lock.unlock(); }), me()); });
}

TEST(LockTest, OnlyTheOwnerMayReleaseAndOthersAssertWithBothIds) {
    Velik::Locking::Lock lock;
    EXPECT_EQ(assertMessageOf([&] { lock.unlock(); }),
              "LockingCpp:32: Lock::unlock() " + notHeld + noOwner + " me:" + me());
    ASSERT_TRUE(lock.try_lock());
    EXPECT_FALSE(onOtherThread([&] { return lock.owns_lock() || lock.try_lock(); }));
    const auto [message, other] = unlockElsewhere(lock);
    EXPECT_EQ(message, "LockingCpp:32: Lock::unlock() " + notHeld + me() + " me:" + other);
    EXPECT_TRUE(lock.owns_lock());
    lock.unlock();
    EXPECT_EQ(lock.owner(), std::thread::id());
}

TEST(RecursiveLockTest, OwnerSurvivesUntilTheOutermostUnlock) {
    Velik::Locking::RecursiveLock lock;
    lock.lock();
    lock.lock();
    ASSERT_TRUE(lock.try_lock());
    const auto [message, other] = unlockElsewhere(lock);
    EXPECT_EQ(message, "LockingCpp:64: RecursiveLock::unlock() " + notHeld + me() + " me:" + other +
                           " lockCount:3");
    for (unsigned left : {2u, 1u, 0u}) {
        lock.unlock();
        EXPECT_EQ(lock.lockCount(), left);
        EXPECT_EQ(lock.owns_lock(), left > 0);
    }
    EXPECT_EQ(assertMessageOf([&] { lock.unlock(); }), "LockingCpp:64: RecursiveLock::unlock() " +
                                                           notHeld + noOwner + " me:" + me() +
                                                           " lockCount:0");
}

TEST(ConditionalGuardTest, ReleasesOnlyWhenAskedAndStillHeld) {
    VelikTest::ThrowingAsserts throwing;  // a second release would assert
    Velik::Locking::Lock lock;
    {
        ConditionalGuard guard(lock);
        guard.releaseIs(false);
    }
    EXPECT_TRUE(lock.owns_lock()) << "handed on";
    lock.unlock();
    {
        ConditionalGuard guard(lock);
        lock.unlock();
    }
    { ConditionalGuard guard(lock); }
    EXPECT_FALSE(lock.owns_lock());
}

}  // namespace
