#include <Velik/Exception.h>
#include <Velik/Locking.h>
#include <Velik/Thread.h>

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>

#include "foundation/ThrowingAsserts.h"

namespace {

using Velik::Locking::ConditionalGuard;
using Velik::Locking::Lock;
using Velik::Locking::RecursiveLock;
using VelikTest::assertMessageOf;

const std::string noThread = "thread::id of a non-executing thread";

std::string me() {
    return Velik::toThreadIdString(std::this_thread::get_id());
}

// Runs `body` on a new thread and returns its result.
template <typename Body>
auto onOtherThread(Body body) {
    return std::async(std::launch::async, body).get();
}

TEST(LockTest, RecordsAndClearsTheOwner) {
    Lock lock;
    EXPECT_FALSE(lock.owns_lock());
    EXPECT_EQ(lock.owner(), std::thread::id());
    lock.lock();
    EXPECT_TRUE(lock.owns_lock());
    EXPECT_EQ(lock.owner(), std::this_thread::get_id());
    EXPECT_FALSE(onOtherThread([&] { return lock.owns_lock(); }));
    lock.unlock();
    EXPECT_FALSE(lock.owns_lock());
    EXPECT_EQ(lock.owner(), std::thread::id());
}

TEST(LockTest, TryLockFailsWhileHeldElsewhere) {
    Lock lock;
    ASSERT_TRUE(lock.try_lock());
    EXPECT_TRUE(lock.owns_lock());
    EXPECT_FALSE(onOtherThread([&] { return lock.try_lock(); }));
    lock.unlock();
    EXPECT_TRUE(onOtherThread([&] {
        const bool had = lock.try_lock();
        lock.unlock();
        return had;
    }));
}

TEST(LockTest, ReleasingAFreeLockAsserts) {
    Lock lock;
    EXPECT_EQ(assertMessageOf([&] { lock.unlock(); }),
              "LockingCpp:32: Lock::unlock() attempting to release a lock that is not currently "
              "held, owner:" +
                  noThread + " me:" + me());
}

TEST(LockTest, ReleasingAnotherThreadsLockAssertsWithBothIds) {
    Lock lock;
    lock.lock();
    const std::string owner = me();
    const auto [message, other] = onOtherThread([&] {
        std::string text = assertMessageOf([&] { lock.unlock(); });
        return std::make_pair(text, me());
    });
    EXPECT_EQ(message,
              "LockingCpp:32: Lock::unlock() attempting to release a lock that is not currently "
              "held, owner:" +
                  owner + " me:" + other);
    EXPECT_TRUE(lock.owns_lock());  // still held by this thread
    lock.unlock();
}

TEST(RecursiveLockTest, OwnerSurvivesUntilTheOutermostUnlock) {
    RecursiveLock lock;
    EXPECT_EQ(lock.lockCount(), 0u);
    lock.lock();
    lock.lock();
    ASSERT_TRUE(lock.try_lock());
    EXPECT_EQ(lock.lockCount(), 3u);
    EXPECT_FALSE(onOtherThread([&] { return lock.try_lock(); }));

    lock.unlock();
    EXPECT_TRUE(lock.owns_lock());
    lock.unlock();
    EXPECT_TRUE(lock.owns_lock());
    EXPECT_EQ(lock.lockCount(), 1u);
    lock.unlock();
    EXPECT_FALSE(lock.owns_lock());
    EXPECT_EQ(lock.owner(), std::thread::id());
    EXPECT_EQ(lock.lockCount(), 0u);
}

TEST(RecursiveLockTest, ReleasingWithoutHoldingAssertsWithTheCount) {
    RecursiveLock lock;
    EXPECT_EQ(assertMessageOf([&] { lock.unlock(); }),
              "LockingCpp:64: RecursiveLock::unlock() attempting to release a lock that is not "
              "currently held, owner:" +
                  noThread + " me:" + me() + " lockCount:0");

    lock.lock();
    lock.lock();
    const std::string owner = me();
    const auto [message, other] = onOtherThread([&] {
        std::string text = assertMessageOf([&] { lock.unlock(); });
        return std::make_pair(text, me());
    });
    EXPECT_EQ(message,
              "LockingCpp:64: RecursiveLock::unlock() attempting to release a lock that is not "
              "currently held, owner:" +
                  owner + " me:" + other + " lockCount:2");
    lock.unlock();
    lock.unlock();
}

TEST(ConditionalGuardTest, ReleasesAtScopeEndByDefault) {
    Lock lock;
    {
        ConditionalGuard guard(lock);
        EXPECT_TRUE(guard.release());
        EXPECT_TRUE(lock.owns_lock());
    }
    EXPECT_FALSE(lock.owns_lock());
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
}

TEST(ConditionalGuardTest, CancelledReleaseHandsTheLockOn) {
    Lock lock;
    {
        ConditionalGuard guard(lock);
        guard.releaseIs(false);
    }
    EXPECT_TRUE(lock.owns_lock());
    lock.unlock();

    // Re-enabling the release before the scope ends releases after all.
    {
        ConditionalGuard guard(lock);
        guard.releaseIs(false);
        guard.releaseIs(true);
    }
    EXPECT_FALSE(lock.owns_lock());
}

TEST(ConditionalGuardTest, LeavesALockReleasedInsideItsScopeAlone) {
    VelikTest::ThrowingAsserts throwing;
    Lock lock;
    {
        ConditionalGuard guard(lock);
        lock.unlock();
        // The destructor must not release again (which would assert).
    }
    EXPECT_FALSE(lock.owns_lock());
}

}  // namespace
