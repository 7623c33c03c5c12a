// Fast-forward of the libevent loop: the switch, the virtual time offset,
// and the passes that jump from timer to timer with descriptors watched.
#include "foundation/ThrowingAsserts.h"
#include "platform/LoopThread.h"

#include <Velik/FastForward.h>
#include <Velik/LibeventFactory.h>
#include <Velik/Time.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>

namespace {

using namespace Velik;
using VelikTest::assertMessageOf;
using VelikTest::onLoopThread;

struct Timer : Platform::TimeoutHandler {
    std::shared_ptr<Platform::TimerControl> control = getLeTimerControl(this);
    std::vector<double> firedAt;  // Velik::time() at each expiry
    double period = 0;            // re-armed from its own handler when set
    std::function<void()> onExpiry;
    void timeout() override {
        firedAt.push_back(Velik::time());
        if (period > 0) {
            control->setTimeout(period);
        }
        if (onExpiry) {
            onExpiry();
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

TEST(FastForwardSwitch, NotifiesRealChangesOnlyAndOnlyOnTheMainThread) {
    leRegisterFastForwardChangeNotifier(countNotification);
    Platform::registerFastForwardChangeNotifier(countNotification);  // the same set
    notifications = 0;
    setLeFastForward(true);
    setLeFastForward(true);
    EXPECT_EQ(notifications, 1);
    setLeFastForward(false);
    EXPECT_EQ(notifications, 2);
    fastForwardChangeNotifiers().erase(countNotification);

    onLoopThread([] {
        EXPECT_NE(assertMessageOf([] {
                      setLeFastForward(true);
                  }).find("FastForward invoked from non-main thread"),
                  std::string::npos);
        timeval delay;
        EXPECT_NE(assertMessageOf([&] {
                      fastForwardDelayToFirstTimer(&delay);
                  }).find("Called without fast forward enabled"),
                  std::string::npos);
        EXPECT_NE(assertMessageOf([] {
                      eventLoopFastForwardToFirstTimer(1);
                  }).find("Called without fastForward enabled"),
                  std::string::npos);
    });
    EXPECT_FALSE(leFastForward());
}

TEST(VirtualTime, OffsetsAddWithCarryPerThread) {
    onLoopThread([] {
        double before = Velik::time();
        timeval a{0, 700000}, b{0, 600000};
        applyFastForwardDelta(&a);
        applyFastForwardDelta(&b);
        EXPECT_DOUBLE_EQ(leVirtualTimeOffset(), 1.3);
        EXPECT_GE(Velik::time() - before, 1.3);
        EXPECT_LT(Velik::time() - before, 2.0);
    });
    onLoopThread([] { EXPECT_EQ(leVirtualTimeOffset(), 0.0); });
}

// One pass jumps to the first timer but no further than its limit; without
// timers by exactly the limit; with a timer already due, not at all.
TEST_F(FastForwardTest, PassJumpsToTheFirstTimerWithinItsLimit) {
    onLoopThread([] {
        eventLoopFastForwardToFirstTimer(2.5);
        EXPECT_DOUBLE_EQ(leVirtualTimeOffset(), 2.5);

        Timer hour, later;
        hour.control->setTimeout(3600);
        later.control->setTimeout(5000);
        eventLoopFastForwardToFirstTimer(10);
        EXPECT_NEAR(leVirtualTimeOffset(), 12.5, 1e-6);
        EXPECT_TRUE(hour.firedAt.empty());
        EXPECT_NEAR(hour.control->remainingTimeout(), 3590, 0.1);
        EXPECT_NEAR(later.control->remainingTimeout(), 4990, 0.1);

        eventLoopFastForwardToFirstTimer(7200);
        EXPECT_NEAR(leVirtualTimeOffset(), 3602.5, 0.1);
        EXPECT_EQ(hour.firedAt.size(), 1u);
        EXPECT_TRUE(later.firedAt.empty());

        later.control->setTimeout(0);
        usleep(1000);
        timeval delay;
        ASSERT_TRUE(fastForwardDelayToFirstTimer(&delay));
        EXPECT_TRUE(delay.tv_sec == 0 && delay.tv_usec == 0);
    });
}

// A timed loop runs a periodic timer and a descriptor that one of its
// expiries makes readable, at once in wall time, every expiry one virtual
// second after the one before.
TEST_F(FastForwardTest, LoopForSecondsOverTimersAndDescriptors) {
    onLoopThread([] {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        struct Reader : Platform::FdEventHandler {
            std::vector<double> readAt;
            void readFdEvent(int fd) override {
                char c;
                EXPECT_EQ(read(fd, &c, 1), 1);
                readAt.push_back(Velik::time());
            }
            void writeFdEvent(int) override {}
        } reader;
        auto watch = getLeFdControl(&reader);
        watch->setFd(fds[0]);
        Timer periodic;
        periodic.period = 1.0;
        periodic.onExpiry = [&] {
            if (periodic.firedAt.size() == 5) {
                EXPECT_EQ(write(fds[1], "x", 1), 1);
            }
        };
        periodic.control->setTimeout(1.0);
        double start = Velik::time();
        EXPECT_LT(wallSeconds([] { doLeEventLoop(10); }), 1.0);
        EXPECT_GE(Velik::time() - start, 10.0);
        ASSERT_GE(periodic.firedAt.size(), 9u);
        EXPECT_LE(periodic.firedAt.size(), 10u);
        for (size_t i = 1; i < periodic.firedAt.size(); ++i) {
            EXPECT_NEAR(periodic.firedAt[i] - periodic.firedAt[i - 1], 1.0, 0.01);
        }
        // Served by a later pass, before the next expiry's.
        ASSERT_EQ(reader.readAt.size(), 1u);
        EXPECT_GE(reader.readAt[0], periodic.firedAt[4]);
        EXPECT_LE(reader.readAt[0], periodic.firedAt[5]);
        periodic.control->delTimeout();
        watch.reset();
        close(fds[0]);
        close(fds[1]);
    });
}

// The untimed loop jumps to its first timer; the waiting pass runs what the
// jump made due, timers that shared an expiry together, and stops there.
TEST_F(FastForwardTest, UntimedLoopAndWaitingPassKeepRelativeTimes) {
    onLoopThread([] {
        Timer day;
        day.control->setTimeout(86400);
        double start = Velik::time();
        EXPECT_LT(wallSeconds([] { doLeEventLoop(); }), 1.0);
        ASSERT_EQ(day.firedAt.size(), 1u);
        EXPECT_NEAR(day.firedAt[0] - start, 86400, 0.5);

        Timer a, b, c;
        a.control->setTimeout(100);
        b.control->setTimeout(100);
        c.control->setTimeout(250);
        start = Velik::time();
        doLeEventLoopInWaitfor(1000);
        ASSERT_EQ(a.firedAt.size() + b.firedAt.size(), 2u);
        EXPECT_TRUE(c.firedAt.empty());
        EXPECT_NEAR(a.firedAt[0] - start, 100, 0.1);
        EXPECT_NEAR(c.control->remainingTimeout(), 150, 0.1);
        doLeEventLoopInWaitfor(1000);
        ASSERT_EQ(c.firedAt.size(), 1u);
        EXPECT_NEAR(c.firedAt[0] - start, 250, 0.1);
    });
}

}  // namespace
