// What the libevent platform does beyond the control contract (which
// tests/adapter/PlatformContract_test.cpp holds against both families): one
// base per thread, fork, the log and fatal bridges, priorities and the loop
// break.
#include "foundation/ChildProcess.h"
#include "foundation/ThrowingAsserts.h"
#include "platform/LoopThread.h"
#include "platform/Pipe.h"
#include "platform/Recorder.h"

#include <Velik/ForkHandler.h>
#include <Velik/PlatformSelection.h>

#include <gmock/gmock.h>

namespace {

using namespace Velik;
using testing::HasSubstr;
using VelikTest::assertMessageOf;
using VelikTest::loopPass;
using VelikTest::onLoopThread;

TEST(LibeventBase, OneLazyBasePerThread) {
    onLoopThread([] {
        EXPECT_FALSE(leInitialized());
        leInit();
        event_base* base = leEventBase();
        ASSERT_NE(base, nullptr);
        leInit();
        EXPECT_EQ(leEventBase(), base);

        event_base* other = leCreateBase();
        EXPECT_THAT(assertMessageOf([&] { leRegisterBase(other); }),
                    HasSubstr(fmt::format("Tried to register a base:{} but a thread_local  base "
                                          "already exists: {}",
                                          fmt::ptr(other), fmt::ptr(base))));
        event_base_free(other);
        event ev;
        event_assign(&ev, base, -1, 0, nullptr, nullptr);
        EXPECT_THAT(
            assertMessageOf(
                [&] { eventPrioritySet(&ev, static_cast<Platform::EventPriority>(2)); }),
            HasSubstr(fmt::format("Failed to set priority on {} to Invalid EventPriority=2 rc -1",
                                  fmt::ptr(&ev))));

        leFree();
        EXPECT_FALSE(leInitialized());
    });
    onLoopThread([] { EXPECT_FALSE(leInitialized()); });  // each thread its own
}

// The child knows it forked and can use the inherited base; a new fd
// control wants reads without being asked.
TEST(LibeventBase, ForkedChildReinitialisesTheInheritedBase) {
    onLoopThread([] {
        VelikTest::Pipe pipe;
        VelikTest::Recorder handler;
        auto control = getLeFdControl(&handler);
        control->setFd(pipe.fds[0]);
        event_base* base = leEventBase();
        VelikTest::ChildResult child = VelikTest::runInChild([&] {
            leForkReinit();
            pipe.put();
            loopPass();
            _exit(Platform::isForkedChild() && leEventBase() == base && handler.log.size() == 1
                      ? 0
                      : 1);
        });
        EXPECT_TRUE(WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0) << child.stderrText;
        loopPass();  // the child's byte is in the shared pipe
        EXPECT_EQ(handler.log.size(), 1u);
        control.reset();
    });
}

TEST(LibeventLog, SeveritiesMapOntoTraceLevelsAndFatalErrorsAssert) {
    Platform::setupVelikDebug("VelikLibevent/0");
    testing::internal::CaptureStderr();
    le_debug_cb(EVENT_LOG_WARN, "a warning");
    le_debug_cb(EVENT_LOG_ERR, "an error");
    Platform::clearVelikDebug("VelikLibevent");
    const std::string out = testing::internal::GetCapturedStderr();
    EXPECT_EQ(out.find("a warning"), std::string::npos) << out;
    EXPECT_NE(out.find("an error"), std::string::npos) << out;
    EXPECT_THAT(assertMessageOf([] { le_debug_cb(4, "odd"); }),
                HasSubstr("invalid libevent severity:4 msg:odd"));
    EXPECT_THAT(assertMessageOf([] { le_fatal_cb(42); }), HasSubstr("libevent fatal error:42"));
}

TEST(LibeventFdControlDeathTest, ClosedDescriptorAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    VelikTest::Recorder handler;
    EXPECT_DEATH(LibeventFdControl(&handler).setFd(1000), "Assertion `flags >= 0' failed");
}

// A timed loop serves what is due, strictly high first (the platform factory
// passes the priority on to the libevent timer), and breaks before what is
// not; the break event is gone after the loop, however the loop ended.
TEST(LibeventLoop, TimeoutLoopServesStrictHighFirstBreaksAndCleansUp) {
    onLoopThread([] {
        leInit();
        const auto eventCount = [] {
            return event_base_get_num_events(leEventBase(), EVENT_BASE_COUNT_ADDED);
        };
        const int baseline = eventCount();
        std::vector<std::string> log;
        VelikTest::Recorder late, normal, high;
        normal.inside = [&] { log.push_back("default"); };
        high.inside = [&] { log.push_back("high"); };
        auto hour = getLeTimerControl(&late);
        hour->setTimeout(3600);
        auto normalTimer = Platform::getTimerControl(&normal);
        auto highTimer = Platform::getTimerControl(&high, Platform::eventPriorityStrictHigh);
        normalTimer->setTimeout(0);
        highTimer->setTimeout(0);
        eventLoopTimeout(0.002);
        EXPECT_EQ(log, (std::vector<std::string>{"high", "default"}));
        EXPECT_EQ(eventCount(), baseline + 1);

        VelikTest::Recorder thrower;
        thrower.throws = true;
        auto now = getLeTimerControl(&thrower);
        now->setTimeout(0);
        EXPECT_THROW(eventLoopTimeout(3600), std::runtime_error);
        EXPECT_EQ(eventCount(), baseline + 1);
    });
}

}  // namespace
