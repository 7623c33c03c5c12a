// Locks and thread identity: who may release a lock, and the names and
// singleton choice of a thread.
#include <Velik/Locking.h>
#include <Velik/Thread.h>

#include <future>

#include "foundation/ThrowingAsserts.h"

namespace {

using VelikTest::assertMessageOf;

const std::string notHeld = "attempting to release a lock that is not currently held, owner:";
const std::string noOwner = "thread::id of a non-executing thread";

const auto me = [] { return Velik::toThreadIdString(std::this_thread::get_id()); };
const auto onOtherThread = [](auto body) { return std::async(std::launch::async, body).get(); };

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
        EXPECT_EQ(std::pair(lock.lockCount(), lock.owns_lock()), std::pair(left, left > 0));
    }
}

std::string systemThreadName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

TEST(ThreadTest, MainThreadKeepsItsNameOthersAreNamedUpToTheKernelLimit) {
    const std::string main = systemThreadName();
    EXPECT_EQ(Velik::threadNameIs("renamed"), main);
    EXPECT_EQ(systemThreadName(), main);
    const std::string named = "fifteen-chars-x";
    EXPECT_EQ(onOtherThread([&] {
                  const std::string inherited = Velik::threadName();  // read from the system
                  Velik::threadNameIs(named.c_str());
                  const auto message =
                      assertMessageOf([] { Velik::threadNameIs("twenty-chars-xxxxxxx"); });
                  return std::tuple(inherited, std::string(Velik::threadName()), systemThreadName(),
                                    message);
              }),
              std::tuple(main, named, named,
                         "ThreadCpp:95: Velik::threadNameIs() pthread_setname_np() failed:" +
                             std::to_string(ERANGE) + " for name:twenty-chars-xxxxxxx"));
}

TEST(ThreadTest, ThreadLocalSingletonsMustBeChosenBeforeTheFirstQueryOfTheThread) {
    EXPECT_TRUE(onOtherThread([] {
        Velik::useThreadLocalSingletons();
        Velik::useThreadLocalSingletons();
        return Velik::hasThreadLocalSingletons();
    }));
    EXPECT_EQ(onOtherThread([] {
                  EXPECT_FALSE(Velik::hasThreadLocalSingletons()) << "the choice is per thread";
                  return assertMessageOf([] { Velik::useThreadLocalSingletons(); });
              }),
              "ThreadCpp:38: Velik::useThreadLocalSingletons() Attempt to change "
              "threadLocalSingletons after a global singleton has already been created. Please "
              "call useThreadLocalSingletons() immediately after spawning your thread.");
}

}  // namespace
