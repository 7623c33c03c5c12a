#include <Kiv/ActivityLock.h>
#include <Velik/KivActivityLock.h>
#include <Velik/Loco.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>

namespace {

using Velik::Platform::loco;
using Velik::Platform::LocoGuard;

TEST(ActivityLockTest, ReLockByHolderIsToleratedAndLeavesOwnership) {
    Kiv::ActivityLock raw;
    KivVelik::ActivityLock lock(raw);
    EXPECT_EQ(lock.lock(), 0);
    EXPECT_TRUE(lock.owns_lock());
    EXPECT_EQ(lock.lock(), EDEADLK);
    EXPECT_TRUE(lock.owns_lock()) << "the outer holder still owns it";
    lock.unlock();
    EXPECT_FALSE(lock.owns_lock());
    lock.unlock();  // not owned: nothing to release
    EXPECT_EQ(raw.lock(), 0) << "the framework lock is free again";
    raw.unlock();
}

TEST(LocoGuardTest, NestedGuardsReleaseOnlyAtTheOutermost) {
    {
        LocoGuard outer;
        EXPECT_TRUE(outer.releases());
        {
            LocoGuard inner;
            EXPECT_FALSE(inner.releases());
        }
        EXPECT_TRUE(loco().owns_lock()) << "the inner guard must not release the outer's lock";
    }
    EXPECT_FALSE(loco().owns_lock());
}

TEST(LocoGuardTest, ExcludesOtherThreads) {
    std::atomic<bool> taken{false};
    std::thread other;
    {
        LocoGuard guard;
        other = std::thread([&] {
            LocoGuard g;
            taken = true;
        });
        // The other thread blocks while this guard lives.
        std::this_thread::yield();
        EXPECT_FALSE(taken.load());
    }
    other.join();
    EXPECT_TRUE(taken.load());
}

}  // namespace
