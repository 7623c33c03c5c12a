// What the framework-backed controls do beyond the shared contract: their
// trace lines, their default interest, and the lifetimes of handlers that
// drop their control from inside a notification; and the framework-backed
// platform lock.
#include <Velik/KivActivityLock.h>
#include <Velik/KivPlatform.h>
#include <Velik/Loco.h>
#include <Velik/PlatformSelection.h>

#include <Kiv/ActivityLock.h>
#include <Kiv/ActivityManager.h>

#include "platform/Pipe.h"
#include "platform/Recorder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using namespace Velik;

// One pass of the framework loop, leaving later runs unlimited.
void pass() {
    Platform::doEventLoop(0.0);
    Kiv::activityManager()->config()->executionTimeIs(std::numeric_limits<double>::infinity());
}

// Descriptor lines and their handled exceptions are routine progress, at
// level 5 (each line names its own level; those of timers and callbacks are
// fine detail, at level 9).
TEST(KivPlatformTest, TraceLineOfAHandledDescriptorException) {
    VelikTest::Pipe p;
    p.put();
    VelikTest::Recorder handler;
    handler.throws = handler.swallow = true;
    auto fd = Platform::getFdControl(&handler);
    Platform::setTraceFormat("%f/%l %F:%n: %m");
    Platform::setupVelikDebug("KivVelik");
    testing::internal::CaptureStderr();
    fd->setReads(true);
    fd->setFd(p.fds[0]);
    pass();
    const std::string out = testing::internal::GetCapturedStderr();
    Platform::clearVelikDebug("KivVelik");
    Platform::clearTraceFormat();
    EXPECT_NE(out.find("KivVelik/5 Platform:onReadableCount: FileDescriptor::onReadableCount: Fd "
                       "notification exception was handled\n"),
              std::string::npos)
        << out;
}

// Handlers own their controls and may drop them from inside a throwing
// notification; nothing of a destroyed control may be touched afterwards. A
// new fd control wants nothing until asked.
TEST(KivPlatformTest, ControlsDroppedInsideThrowingNotifications) {
    VelikTest::Pipe p;
    p.put();
    VelikTest::Recorder handler;
    handler.throws = handler.swallow = true;
    auto fd = Platform::getFdControl(&handler);
    auto timer = Platform::getTimerControl(&handler);
    auto callback = Platform::getCallbackControl(&handler);
    handler.inside = [&] {  // drops the control that notifies
        const char kind = handler.log.back()[0];
        kind == 'r' ? fd.reset() : kind == 't' ? timer.reset() : callback.reset();
    };
    fd->setFd(p.fds[0]);
    pass();
    EXPECT_EQ(Kiv::activityManager()->mainLoop()->watchedCount(), 0u);
    fd->setReads(true);
    pass();
    EXPECT_EQ(handler.hookFds, (std::vector<int>{p.fds[0]}));
    pass();  // detached by the destruction: nothing more
    EXPECT_EQ(handler.hookFds.size(), 1u);

    handler.swallow = false;
    callback->requestCallback();
    EXPECT_THROW(pass(), std::runtime_error);
    EXPECT_EQ(handler.hooks, 1);  // the callback hook, asked before the control went
    timer->setTimeout(0.0);
    EXPECT_THROW(pass(), std::runtime_error);
    EXPECT_FALSE(timer);
    pass();  // the loop is still usable
}

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

    {
        Platform::LocoGuard outer;
        EXPECT_TRUE(outer.releases());
        EXPECT_FALSE(Platform::LocoGuard().releases());
        EXPECT_TRUE(Platform::loco().owns_lock()) << "the inner guard must not release the lock";
    }
    EXPECT_FALSE(Platform::loco().owns_lock());
}

TEST(LocoGuardTest, ExcludesOtherThreads) {
    std::atomic<bool> taken{false};
    std::thread other;
    {
        Platform::LocoGuard guard;
        other = std::thread([&] {
            Platform::LocoGuard g;
            taken = true;
        });
        std::this_thread::yield();
        EXPECT_FALSE(taken.load()) << "taken while this guard lives";
    }
    other.join();
    EXPECT_TRUE(taken.load());
}

}  // namespace
