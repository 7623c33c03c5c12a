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

// Taking the lock again on the thread that holds it is answered, not thrown,
// and releases nothing: only the outermost holder lets go. Another thread's
// unlock is refused without effect.
TEST(ActivityLockTest, ReLockByHolderIsToleratedAndReleasesNothing) {
    Kiv::ActivityLock raw;
    KivVelik::ActivityLock lock(raw);
    EXPECT_EQ(lock.lock(), 0);
    EXPECT_EQ(lock.lock(), EDEADLK);
    int foreign = -1;
    std::thread([&] { foreign = raw.unlock(); }).join();
    EXPECT_EQ(foreign, EPERM);
    EXPECT_TRUE(lock.owns_lock());
    lock.unlock();
    EXPECT_FALSE(lock.owns_lock());
    EXPECT_EQ(raw.lock(), 0) << "the framework lock is free again";
    EXPECT_EQ(raw.unlock(), 0);
    EXPECT_EQ(raw.unlock(), EPERM);

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
        std::this_thread::yield();
        EXPECT_FALSE(taken.load()) << "taken while this guard lives";
    }
    other.join();
    EXPECT_TRUE(taken.load());
}

}  // namespace
