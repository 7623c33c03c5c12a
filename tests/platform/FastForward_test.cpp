// Fast-forward of the libevent loop: the switch, the virtual time offset,
// and the passes that jump to the first timer. (Timed loops of timers under
// fast-forward are the platform contract's.)
#include "foundation/ThrowingAsserts.h"
#include "kiv/KivLoop.h"
#include "platform/LoopThread.h"
#include "platform/Recorder.h"

#include <Velik/PlatformSelection.h>

#include <gmock/gmock.h>

namespace {

using namespace Velik;
using testing::HasSubstr;
using VelikTest::assertMessageOf;
using VelikTest::onLoopThread;

struct Timer : VelikTest::Recorder {
    std::shared_ptr<Platform::TimerControl> control = getLeTimerControl(this);
};

// Fast-forward is process-wide and switched by the main thread; the loops
// run on fresh threads, each starting with a zero offset.
using FastForwardTest = VelikTest::LeFastForwardTest;

int notifications = 0;
void (*const countNotification)() = [] { ++notifications; };

TEST(FastForwardSwitch, NotifiesChangesAndOnlyOnTheMainThread) {
    leRegisterFastForwardChangeNotifier(countNotification);
    Platform::registerFastForwardChangeNotifier(countNotification);  // the same set
    notifications = 0;
    setLeFastForward(true);
    setLeFastForward(false);
    // The framework's switch notifies the same set; the libevent switch is a
    // separate one.
    Platform::setFastForward(true);
    EXPECT_EQ(notifications, 3);
    EXPECT_TRUE(KivTest::config()->virtualTime());
    EXPECT_FALSE(leFastForward());
    Platform::setFastForward(false);
    fastForwardChangeNotifiers().erase(countNotification);

    onLoopThread([] {
        EXPECT_THAT(assertMessageOf([] { setLeFastForward(true); }),
                    HasSubstr("FastForward invoked from non-main thread"));
        timeval delay;
        EXPECT_THAT(assertMessageOf([&] { fastForwardDelayToFirstTimer(&delay); }),
                    HasSubstr("Called without fast forward enabled"));
        EXPECT_THAT(assertMessageOf([] { eventLoopFastForwardToFirstTimer(1); }),
                    HasSubstr("Called without fastForward enabled"));
    });
    EXPECT_FALSE(leFastForward());
}

// A thread's offset starts at zero. One pass jumps to the first timer but
// no further than its limit; without timers by exactly the limit. The
// untimed loop jumps to its first timer.
TEST_F(FastForwardTest, PassesAndTheUntimedLoopJumpToTheFirstTimer) {
    onLoopThread([] {
        EXPECT_EQ(leVirtualTimeOffset(), 0.0);
        eventLoopFastForwardToFirstTimer(1.25);
        EXPECT_DOUBLE_EQ(leVirtualTimeOffset(), 1.25);

        Timer hour, later;
        hour.control->setTimeout(3600);
        later.control->setTimeout(5000);
        eventLoopFastForwardToFirstTimer(10);
        EXPECT_NEAR(leVirtualTimeOffset(), 11.25, 1e-6);
        EXPECT_TRUE(hour.firedAt.empty());
        EXPECT_NEAR(hour.control->remainingTimeout(), 3590, 0.1);

        doLeEventLoopInWaitfor(7200);  // one pass only
        EXPECT_NEAR(leVirtualTimeOffset(), 3601.25, 0.1);
        EXPECT_EQ(hour.firedAt.size(), 1u);
        EXPECT_TRUE(later.firedAt.empty());

        later.control->setTimeout(86400);
        const double start = Velik::time();
        doLeEventLoop();
        ASSERT_EQ(later.firedAt.size(), 1u);
        EXPECT_NEAR(later.firedAt[0] - start, 86400, 0.5);
    });
}

}  // namespace
