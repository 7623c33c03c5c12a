// The control contract, held against both platform families: the same test
// bodies run on the framework platform (on the main test thread, driven by
// the framework's main loop under virtual time) and on the libevent platform
// (on a thread with thread-local singletons, under libevent fast-forward).
// Every control comes from the platform factories.
#include "platform/Families.h"
#include "platform/Pipe.h"
#include "platform/Recorder.h"

#include <Velik/Errno.h>
#include <Velik/Exception.h>
#include <Velik/TaskSchedulerRoot.h>

#include <fcntl.h>
#include <gmock/gmock.h>

namespace {

using namespace Velik;
using Platform::doEventLoop;
using VelikTest::Pipe;

constexpr double never = std::numeric_limits<double>::infinity();

// `n` loop passes, each delivering what is ready then, and nothing later.
void pass(int n = 1) {
    for (; n > 0; --n) {
        hasThreadLocalSingletons() ? VelikTest::loopPass() : doEventLoop(0.0);
    }
}

// Runs the loop until it has nothing left to do; only for events that are
// all due at once (libevent does not fast-forward past its first timer here).
void runUntilIdle() {
    if (!hasThreadLocalSingletons()) {
        Kiv::activityManager()->config()->executionTimeIs(never);
    }
    doEventLoop();
}

using PlatformContract = VelikTest::FamilyTest;

INSTANTIATE_TEST_SUITE_P(Families, PlatformContract,
                         testing::Values(VelikTest::Family::framework, VelikTest::Family::libevent),
                         VelikTest::familyName);

using VelikTest::Recorder;
using Log = std::vector<std::string>;

// ------------------------------------------------------------------ descriptors

// Interest waits for a descriptor; reads are persistent, writes one-shot.
// Clearing keeps the descriptor, deleting forgets it, and destroying a bound
// control detaches it: none closes it.
TEST_P(PlatformContract, ReadsPersistWritesAreOneShotAndNothingCloses) {
    run([] {
        Pipe p;
        p.put();
        Recorder handler;
        const auto deliveriesAfter = [&](int passes) { return pass(passes), handler.log.size(); };
        auto control = Platform::getFdControl(&handler);
        EXPECT_EQ(control->getFd(), -1);
        control->setReads(true);
        control->setWrites(true);
        EXPECT_EQ(deliveriesAfter(1), 0u);
        ASSERT_FALSE(fcntl(p.fds[0], F_GETFL) & O_NONBLOCK);
        control->setFd(p.fds[0]);
        EXPECT_TRUE(fcntl(p.fds[0], F_GETFL) & O_NONBLOCK);
        pass(3);
        // A pipe's read end is never writable: reads only.
        const std::string r = "r" + std::to_string(p.fds[0]);
        EXPECT_EQ(handler.log, (Log{r, r, r}));

        control->clearEvents();
        EXPECT_EQ(deliveriesAfter(1), 3u);
        control->setReads(true);  // re-arms on the kept descriptor
        EXPECT_EQ(deliveriesAfter(1), 4u);
        control->delFd();
        EXPECT_EQ(control->getFd(), -1);
        EXPECT_EQ(deliveriesAfter(1), 4u);

        // The always-writable end: one delivery per request.
        control->setFd(p.fds[1]);
        control->setWrites(true);
        pass(2);
        EXPECT_EQ(handler.log, (Log{r, r, r, r, "w" + std::to_string(p.fds[1])}));
        control->setWrites(true);
        EXPECT_EQ(deliveriesAfter(1), 6u);

        control->setReads(true);
        control->setFd(p.fds[0]);
        control.reset();
        EXPECT_EQ(deliveriesAfter(1), 6u);
        EXPECT_GE(fcntl(p.fds[0], F_GETFL), 0);
    });
}

// A notification's exception goes to its handler's hook. One swallowed
// leaves the loop running, a read still armed and a timer disarmed; one that
// is not leaves the loop at once, with the rest still armed.
TEST_P(PlatformContract, DescriptorAndTimerExceptionHooks) {
    run([] {
        Pipe p;
        p.put();
        Recorder reader, thrower, other;
        reader.throws = thrower.throws = reader.swallow = thrower.swallow = true;
        auto control = Platform::getFdControl(&reader);
        control->setReads(true);
        control->setFd(p.fds[0]);
        pass(2);
        EXPECT_EQ(reader.hookFds, (std::vector<int>{p.fds[0], p.fds[0]}));
        reader.swallow = false;
        EXPECT_THROW(doEventLoop(10.0), std::runtime_error);
        EXPECT_EQ(reader.hookFds.size(), 3u);
        reader.throws = false;
        pass();
        EXPECT_EQ(reader.log.size(), 4u);
        control.reset();

        auto t1 = Platform::getTimerControl(&thrower);
        auto t2 = Platform::getTimerControl(&other);
        t1->setTimeout(1.0);
        t2->setTimeout(2.0);
        doEventLoop(10.0);
        EXPECT_EQ(thrower.hooks, 1);
        EXPECT_EQ(other.firedAt.size(), 1u);
        EXPECT_EQ(t1->remainingTimeout(), never);
        thrower.swallow = false;
        t1->setTimeout(1.0);
        t2->setTimeout(2.0);
        EXPECT_THROW(doEventLoop(10.0), std::runtime_error);
        EXPECT_EQ(thrower.hooks, 2);
        EXPECT_EQ(other.firedAt.size(), 1u);
        EXPECT_LT(t2->remainingTimeout(), 2.0);
    });
}

// ------------------------------------------------------------------ timers

// Re-arming replaces the expiry; a timer is disarmed before its handler
// runs, which may arm it again.
TEST_P(PlatformContract, TimerIsOneShotReArmableFromItsHandlerAndReportsWhatRemains) {
    run([] {
        Recorder handler;
        auto timer = Platform::getTimerControl(&handler);
        EXPECT_EQ(timer->remainingTimeout(), never);
        timer->delTimeout();  // harmless when not armed

        timer->setTimeout(100.25);
        EXPECT_GT(timer->remainingTimeout(), 100.2);
        EXPECT_LE(timer->remainingTimeout(), 100.25);
        timer->setTimeout(-1.0);  // already past: due, and nothing remains
        EXPECT_EQ(timer->remainingTimeout(), 0.0);
        timer->setTimeoutAt(std::nan(""));
        EXPECT_EQ(timer->remainingTimeout(), 0.0);

        double armedAt = Velik::time();
        timer->setTimeout(3600.0);
        handler.inside = [&] {
            EXPECT_EQ(timer->remainingTimeout(), never);
            if (handler.firedAt.size() < 2) {
                timer->setTimeout(0.5);
            }
        };
        doEventLoop(7200.0);
        ASSERT_EQ(handler.firedAt.size(), 2u);
        EXPECT_NEAR(handler.firedAt[0] - armedAt, 3600.25, 0.25);
        EXPECT_NEAR(handler.firedAt[1] - handler.firedAt[0], 0.55, 0.051);
        timer->setTimeout(1.0);
        timer->delTimeout();
        doEventLoop(10.0);
        EXPECT_EQ(handler.firedAt.size(), 2u);
    });
}

// ------------------------------------------------------------------ callbacks

// Requests coalesce into one delivery on a later pass, never from inside the
// request; one made from inside the callback is served on a later pass, and
// survives the callback throwing. Destroying the control cancels it.
TEST_P(PlatformContract, CallbackRequestsCoalesceNeverRunSynchronouslyAndDieWithTheControl) {
    run([] {
        Recorder handler;
        auto control = Platform::getCallbackControl(&handler);
        EXPECT_FALSE(control->pendingCallback());
        control->requestCallback();
        control->requestCallback();
        EXPECT_TRUE(handler.log.empty());
        EXPECT_TRUE(control->pendingCallback());
        handler.inside = [&] { EXPECT_FALSE(control->pendingCallback()); };
        runUntilIdle();
        EXPECT_EQ(handler.log.size(), 1u);

        handler.inside = [&] {
            if (handler.log.size() < 5) {
                control->requestCallback();
            }
        };
        control->requestCallback();
        pass();
        EXPECT_EQ(handler.log.size(), 2u);
        EXPECT_TRUE(control->pendingCallback());
        runUntilIdle();
        EXPECT_EQ(handler.log.size(), 5u);

        handler.throws = true;
        handler.inside = [&] { control->requestCallback(); };
        control->requestCallback();
        EXPECT_THROW(runUntilIdle(), std::runtime_error);
        EXPECT_EQ(handler.hooks, 1);
        EXPECT_TRUE(control->pendingCallback());
        control.reset();
        runUntilIdle();
        EXPECT_EQ(handler.log.size(), 6u);
    });
}

// Descriptors no event loop can watch (a regular file, /dev/null: always
// ready) are refused where they would be armed, by both families with one
// exception and one text.
TEST_P(PlatformContract, UnwatchableDescriptorsAreRefusedWhereArmed) {
    run([] {
        Recorder recorder;
        const int file = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        ASSERT_GE(file, 0);
        const auto refused = [](int fd) {
            return testing::ThrowsMessage<RuntimeException>(testing::StartsWith(
                fmt::format("Velik::RuntimeException(\"cannot watch fd {}: {}\")\n", fd,
                            Velik::strerror(EPERM))));
        };
        auto control = Platform::getFdControl(&recorder);
        control->setReads(true);
        EXPECT_THAT([&] { control->setFd(file); }, refused(file));
        control->delFd();
        control->setReads(false);
        control->setFd(null);  // nothing to arm yet
        EXPECT_THAT([&] { control->setWrites(true); }, refused(null));
        control.reset();
        close(file);
        close(null);
    });
}

// The asynchronous snapshot writer writes such a descriptor at every run.
TEST_P(PlatformContract, AsyncSnapshotToDevNullCompletes) {
    run([] {
        auto root = schedulerRootVelik();
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        bool done = false;
        root->snapshotRenderJsonAsync(null, root->snapshot(true, true, true), [&] { done = true; });
        runUntilIdle();
        EXPECT_TRUE(done);
        close(null);
    });
}

}  // namespace
