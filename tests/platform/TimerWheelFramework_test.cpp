// The timer wheel on the framework platform: the main test thread, the
// framework's clock timer as master timer, and the framework's virtual time.
#include <Velik/KivPlatform.h>
#include <Velik/PlatformSelection.h>
#include <Velik/Time.h>
#include <Velik/TimerWheel.h>

#include <Kiv/ActivityManager.h>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <vector>

namespace {

using namespace Velik;

constexpr double never = std::numeric_limits<double>::infinity();

// Dues of the deliveries, in delivery order.
using Deliveries = std::vector<double>;

struct Probe : TimerWheelEvent {
    explicit Probe(Deliveries* deliveries = nullptr) : deliveries(deliveries) {}

    void start(const std::shared_ptr<TimerWheel>& wheel, double seconds) {
        setTimeout(wheel, seconds);
        due = expirationTime();
    }
    void timeout() override {
        lateness.push_back(Velik::time() - due);
        if (deliveries) {
            deliveries->push_back(due);
        }
        if (onExpiry) {
            onExpiry();
        }
    }

    Deliveries* deliveries;
    double due = never;
    std::vector<double> lateness;
    std::function<void()> onExpiry;
};

// One pass of the framework loop; later runs are not limited by it.
void pass() {
    Platform::doEventLoop(0.0);
    Kiv::activityManager()->config()->executionTimeIs(never);
}

// A framework timer that only makes the clock get somewhere.
struct Waypoint : Platform::TimeoutHandler {
    void timeout() override {}
};

class TimerWheelFramework : public testing::Test {
  protected:
    void SetUp() override {
        Platform::setFastForward(true);
        Kiv::activityManager()->config()->executionTimeIs(never);
    }
    void TearDown() override {
        Platform::setFastForward(false);
        Kiv::activityManager()->config()->executionTimeIs(never);
    }

    // Lets virtual time run to `fraction` of the way into a tick.
    static void moveIntoTick(double fraction) {
        double tick = std::ceil(Velik::time() * TimerWheel::ticksPerSecond) + 1;
        Waypoint waypoint;
        KivVelik::ClockTimer timer(&waypoint, Kiv::activityManager()->clock());
        timer.timeMinIs((tick + fraction) / TimerWheel::ticksPerSecond);
        Platform::doEventLoop();
    }
};

struct Handler : Platform::TimeoutHandler {
    std::vector<double> firedAt;
    void timeout() override { firedAt.push_back(Velik::time()); }
};

TEST_F(TimerWheelFramework, ControlsOnTheProcessWheelWithAFrameworkMasterTimer) {
    std::shared_ptr<TimerWheel> wheel = getTimerWheel();
    EXPECT_EQ(getTimerWheel(), wheel);
    auto* master = dynamic_cast<KivVelik::ClockTimer*>(wheel->masterTimer().get());
    ASSERT_NE(master, nullptr);
    EXPECT_NE(getTimerWheelForTaskScheduler(Platform::eventPriorityStrictHigh), wheel);

    Handler a, b;
    auto first = Platform::getTimerControl(&a, wheel);
    auto second = Platform::getTimerControl(&b, wheel);
    double start = Velik::time();
    first->setTimeout(3.0);
    second->setTimeout(1.0);
    EXPECT_LE(master->timeMin(), start + 1.0);
    EXPECT_NEAR(master->timeMin(), wheel->masterTimerExpiry(), 1e-3);
    second->setTimeout(2.0);  // re-armed later
    EXPECT_NEAR(second->remainingTimeout(), 2.0, 1e-3);
    Platform::doEventLoop();
    ASSERT_EQ(a.firedAt.size(), 1u);
    ASSERT_EQ(b.firedAt.size(), 1u);
    EXPECT_GE(a.firedAt[0] - start, 3.0);
    EXPECT_GE(b.firedAt[0] - start, 2.0);
    EXPECT_LT(b.firedAt[0] - start, 2.05);
    EXPECT_EQ(first->remainingTimeout(), never);
    EXPECT_EQ(master->timeMin(), never);
    EXPECT_EQ(wheel->masterTimerExpiry(), never);
}

TEST_F(TimerWheelFramework, EarlyReleasedTimerIsParkedAndDeliveredOnTime) {
    Probe p;  // made first: the wheel leaves it stopped should a check fail
    auto wheel = getTimerWheelForTaskScheduler(Platform::eventPriorityDefault);
    moveIntoTick(0.5);
    p.start(wheel, 0.004);  // in the tick the wheel counts as current
    pass();
    ASSERT_TRUE(p.lateness.empty());
    EXPECT_EQ(p.state(), TimerWheelState::inTimersExpiryingSoon);
    EXPECT_EQ(wheel->masterTimerExpiry(), p.due);

    Platform::doEventLoop();
    ASSERT_EQ(p.lateness.size(), 1u);
    EXPECT_GE(p.lateness[0], 0.0);
    EXPECT_LT(p.lateness[0], 0.005);
    EXPECT_EQ(wheel->timersExpiryingSoonCount(), 0u);
}

TEST_F(TimerWheelFramework, ChurningTimersAreNeverEarlyAndComeInTimeOrder) {
    std::mt19937 random(11);
    std::uniform_real_distribution<double> delay(0.0, 1.0);
    Deliveries deliveries;
    std::vector<std::unique_ptr<Probe>> probes;
    auto wheel = getTimerWheelForTaskScheduler(Platform::eventPriorityDefault);
    for (int i = 0; i < 1000; ++i) {
        probes.push_back(std::make_unique<Probe>(&deliveries));
    }
    int stopped = 0;
    for (size_t i = 0; i < probes.size(); ++i) {
        Probe& p = *probes[i];
        if (i % 10 == 0) {
            // Stops its neighbour if that is still to come, restarts itself
            // once, and stops itself in passing.
            p.onExpiry = [&, i] {
                Probe& next = *probes[i + 1];
                if (next.lateness.empty() && next.state() != TimerWheelState::notLinked) {
                    next.delTimeout(wheel);
                    next.due = never;
                    ++stopped;
                }
                Probe& self = *probes[i];
                self.delTimeout(wheel);
                if (self.lateness.size() == 1) {
                    self.start(wheel, delay(random) / 50);
                }
            };
        }
        p.start(wheel, i % 3 == 0 ? delay(random) / 50 : delay(random) * 20);
    }
    Platform::doEventLoop();

    EXPECT_GT(stopped, 0);
    size_t expected = probes.size() + probes.size() / 10 - stopped;
    ASSERT_EQ(deliveries.size(), expected);
    for (size_t i = 1; i < deliveries.size(); ++i) {
        ASSERT_LE(deliveries[i - 1], deliveries[i]) << i;
    }
    for (auto& p : probes) {
        for (double late : p->lateness) {
            ASSERT_GE(late, 0.0);
            EXPECT_LT(late, 0.05);
        }
    }
    EXPECT_EQ(wheel->masterTimerExpiry(), never);
}

}  // namespace
