#include "foundation/ThrowingAsserts.h"
#include "platform/LoopThread.h"

#include <Velik/FastForward.h>
#include <Velik/LibeventFactory.h>
#include <Velik/Time.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

namespace {

using namespace Velik;
using VelikTest::onLoopThread;

struct Timer : Platform::TimeoutHandler {
    std::shared_ptr<Platform::TimerControl> control = getLeTimerControl(this);
    std::vector<double> firedAt;  // Velik::time() at each expiry
    double period = 0;            // re-armed from its own handler when set
    void timeout() override {
        firedAt.push_back(Velik::time());
        if (period > 0) {
            control->setTimeout(period);
        }
    }
};

double wallSeconds(const std::function<void()>& body) {
    auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Fast-forward is process-wide and switched by the main thread; the loops
// run on fresh threads, each starting with a zero offset.
class FastForwardTest : public testing::Test {
  protected:
    void SetUp() override { setLeFastForward(true); }
    void TearDown() override { setLeFastForward(false); }
};

int notifications = 0;
void countNotification() {
    ++notifications;
}

TEST(FastForwardSwitch, NotifiesRealChangesOnly) {
    leRegisterFastForwardChangeNotifier(countNotification);
    Platform::registerFastForwardChangeNotifier(countNotification);
    EXPECT_EQ(fastForwardChangeNotifiers().count(countNotification), 1u);
    notifications = 0;
    EXPECT_FALSE(leFastForward());
    setLeFastForward(true);
    setLeFastForward(true);
    EXPECT_TRUE(leFastForward());
    EXPECT_EQ(notifications, 1);
    setLeFastForward(false);
    EXPECT_EQ(notifications, 2);
    EXPECT_TRUE(leMainThread());
    fastForwardChangeNotifiers().erase(countNotification);
}

TEST(FastForwardSwitch, MainThreadOnlyAndRequiredByThePasses) {
    onLoopThread([] {
        EXPECT_NE(VelikTest::assertMessageOf([] {
                      setLeFastForward(true);
                  }).find("FastForward invoked from non-main thread"),
                  std::string::npos);
        timeval delay;
        EXPECT_NE(VelikTest::assertMessageOf([&] {
                      fastForwardDelayToFirstTimer(&delay);
                  }).find("Called without fast forward enabled"),
                  std::string::npos);
        EXPECT_NE(VelikTest::assertMessageOf([] {
                      eventLoopFastForwardToFirstTimer(1);
                  }).find("Called without fastForward enabled"),
                  std::string::npos);
    });
    EXPECT_FALSE(leFastForward());
}

TEST(VirtualTime, OffsetAddsWithCarryAndMovesTheClock) {
    onLoopThread([] {
        EXPECT_EQ(leVirtualTimeOffset(), 0.0);
        double before = Velik::time();
        timeval a{0, 700000}, b{0, 600000};
        applyFastForwardDelta(&a);
        applyFastForwardDelta(&b);
        EXPECT_DOUBLE_EQ(leVirtualTimeOffset(), 1.3);
        EXPECT_GE(Velik::time() - before, 1.3);
        EXPECT_LT(Velik::time() - before, 2.0);
    });
    onLoopThread([] { EXPECT_EQ(leVirtualTimeOffset(), 0.0); });  // per thread
}

TEST_F(FastForwardTest, PassIsCappedByMaxTimeout) {
    onLoopThread([] {
        Timer hour;
        hour.control->setTimeout(3600);
        eventLoopFastForwardToFirstTimer(10);
        EXPECT_NEAR(leVirtualTimeOffset(), 10.0, 1e-6);
        EXPECT_TRUE(hour.firedAt.empty());
        EXPECT_NEAR(hour.control->remainingTimeout(), 3590, 0.1);

        eventLoopFastForwardToFirstTimer(7200);
        EXPECT_NEAR(leVirtualTimeOffset(), 3600.0, 0.1);
        EXPECT_EQ(hour.firedAt.size(), 1u);
    });
}

TEST_F(FastForwardTest, PassWithoutTimersJumpsByMaxTimeout) {
    onLoopThread([] {
        leInit();
        timeval delay{7, 7};
        EXPECT_FALSE(fastForwardDelayToFirstTimer(&delay));
        EXPECT_EQ(delay.tv_sec, 7);
        eventLoopFastForwardToFirstTimer(2.5);
        EXPECT_DOUBLE_EQ(leVirtualTimeOffset(), 2.5);
    });
}

TEST_F(FastForwardTest, DelayToFirstTimer) {
    onLoopThread([] {
        Timer later, sooner;
        later.control->setTimeout(50);
        sooner.control->setTimeout(20);
        timeval delay;
        ASSERT_TRUE(fastForwardDelayToFirstTimer(&delay));
        double seconds = delay.tv_sec + delay.tv_usec / 1e6;
        EXPECT_GT(seconds, 19.99);
        EXPECT_LE(seconds, 20.0001);

        sooner.control->setTimeout(0);
        usleep(1000);
        ASSERT_TRUE(fastForwardDelayToFirstTimer(&delay));
        EXPECT_EQ(delay.tv_sec, 0);
        EXPECT_EQ(delay.tv_usec, 0);
    });
}

TEST_F(FastForwardTest, LoopForSecondsReturnsAtOnceInWallTime) {
    onLoopThread([] {
        Timer periodic;
        periodic.period = 1.0;
        periodic.control->setTimeout(1.0);
        double start = Velik::time();
        double wall = wallSeconds([] { doLeEventLoop(10); });
        EXPECT_LT(wall, 1.0);
        EXPECT_GE(Velik::time() - start, 10.0);
        ASSERT_GE(periodic.firedAt.size(), 9u);
        EXPECT_LE(periodic.firedAt.size(), 10u);
        // Each expiry sees one virtual second since the one before.
        for (size_t i = 1; i < periodic.firedAt.size(); ++i) {
            EXPECT_NEAR(periodic.firedAt[i] - periodic.firedAt[i - 1], 1.0, 0.01);
        }
        periodic.control->delTimeout();
    });
}

TEST_F(FastForwardTest, LoopUntilEmptyJumpsToTheFirstTimer) {
    onLoopThread([] {
        Timer day;
        day.control->setTimeout(86400);
        double start = Velik::time();
        double wall = wallSeconds([] { doLeEventLoop(); });
        EXPECT_LT(wall, 1.0);
        ASSERT_EQ(day.firedAt.size(), 1u);
        EXPECT_NEAR(day.firedAt[0] - start, 86400, 0.5);
    });
}

TEST_F(FastForwardTest, TimersKeepTheirRelativeTimes) {
    onLoopThread([] {
        Timer a, b, c;
        a.control->setTimeout(100);
        b.control->setTimeout(100);
        c.control->setTimeout(250);
        double start = Velik::time();
        doLeEventLoopInWaitfor(1000);
        ASSERT_EQ(a.firedAt.size(), 1u);
        ASSERT_EQ(b.firedAt.size(), 1u);
        EXPECT_TRUE(c.firedAt.empty());  // one pass
        EXPECT_NEAR(a.firedAt[0] - start, 100, 0.1);
        EXPECT_NEAR(c.control->remainingTimeout(), 150, 0.1);
        doLeEventLoopInWaitfor(1000);
        ASSERT_EQ(c.firedAt.size(), 1u);
        EXPECT_NEAR(c.firedAt[0] - start, 250, 0.1);
    });
}

}  // namespace
