#include "Kiv/Clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "Kiv/ActivityManager.h"
#include "Kiv/System.h"

namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();

Kiv::Clock* kivClock() {
    return Kiv::activityManager()->config()->clock();
}

// A clock notifiee running an arbitrary action.
class Timer : public Kiv::Clock::Notifiee {
  public:
    explicit Timer(std::function<void()> action = {})
        : Notifiee(kivClock()), action_(std::move(action)) {}
    void actionIs(std::function<void()> action) { action_ = std::move(action); }
    void onTime() override {
        ++deliveries;
        if (action_) {
            action_();
        }
    }
    int deliveries = 0;

  private:
    std::function<void()> action_;
};

class ClockTest : public ::testing::Test {
  protected:
    void SetUp() override { Kiv::activityManager()->config()->virtualTimeIs(true); }
    void TearDown() override {
        Kiv::activityManager()->config()->virtualTimeIs(false);
        Kiv::activityManager()->config()->executionTimeIs(kNever);
    }
    double now() { return Kiv::System::currentTime(); }
};

TEST_F(ClockTest, HourLongTimerRunsInstantlyUnderVirtualTime) {
    const auto wallStart = std::chrono::steady_clock::now();
    const double start = now();
    double seen = 0;
    Timer timer([&] { seen = now(); });
    timer.timeMinIs(start + 3600);
    Kiv::System::doRun();
    EXPECT_EQ(timer.deliveries, 1);
    EXPECT_GE(seen, start + 3600);
    EXPECT_LT(seen, start + 3601);
    EXPECT_GE(now(), start + 3600);
    EXPECT_LT(std::chrono::steady_clock::now() - wallStart, std::chrono::seconds(1));
}

TEST_F(ClockTest, DeliveryDisarmsBeforeCallingOnTime) {
    double during = 0;
    Timer timer;
    timer.actionIs([&] { during = timer.timeMin(); });
    timer.timeMinIs(0.0);
    EXPECT_EQ(timer.timeMin(), 0.0);
    Kiv::System::doRun();
    EXPECT_EQ(during, kNever);
    EXPECT_EQ(timer.timeMin(), kNever);
    EXPECT_EQ(kivClock()->armedCount(), 0u);
}

TEST_F(ClockTest, SameTimeNotifieesRunInArmingOrderAfterEarlierTimes) {
    std::vector<std::string> order;
    const double t = now() + 10;
    Timer late([&] { order.push_back("late"); });
    Timer a([&] { order.push_back("a"); });
    Timer b([&] { order.push_back("b"); });
    Timer early([&] { order.push_back("early"); });
    late.timeMinIs(t + 1);
    b.timeMinIs(t);
    a.timeMinIs(t);
    early.timeMinIs(t - 1);
    // Re-arming moves b behind a; setting the same time again changes nothing.
    b.timeMinIs(t + 0.5);
    b.timeMinIs(t);
    a.timeMinIs(t);
    Kiv::System::doRun();
    EXPECT_EQ(order, (std::vector<std::string>{"early", "a", "b", "late"}));
}

TEST_F(ClockTest, ManyNotifieesArmedRearmedAndDisarmedArriveInOrder) {
    // Times on a coarse grid so that many are equal; order is by time, then
    // by the latest arming.
    std::mt19937 random(7);
    const double base = now() + 1;
    std::vector<int> arming(500, -1);
    std::vector<int> delivered;
    std::vector<std::unique_ptr<Timer>> timers;
    for (int i = 0; i < 500; ++i) {
        timers.push_back(std::make_unique<Timer>([&delivered, i] { delivered.push_back(i); }));
    }
    int armings = 0;
    for (int round = 0; round < 3000; ++round) {
        const int i = static_cast<int>(random() % 500);
        if (random() % 4 == 0) {
            timers[i]->timeMinIs(kNever);
            arming[i] = -1;
        } else {
            const double t = base + static_cast<double>(random() % 20);
            if (t != timers[i]->timeMin()) {
                timers[i]->timeMinIs(t);
                arming[i] = armings++;
            }
        }
    }
    std::vector<std::tuple<double, int, int>> order;
    for (int i = 0; i < 500; ++i) {
        if (arming[i] >= 0) {
            order.emplace_back(timers[i]->timeMin(), arming[i], i);
        }
    }
    std::sort(order.begin(), order.end());
    EXPECT_EQ(kivClock()->armedCount(), order.size());
    Kiv::System::doRun();
    ASSERT_EQ(delivered.size(), order.size());
    for (std::size_t k = 0; k < order.size(); ++k) {
        EXPECT_EQ(delivered[k], std::get<2>(order[k])) << "position " << k;
    }
}

TEST_F(ClockTest, InfinityAndNanDisarm) {
    Timer timer;
    timer.timeMinIs(now() + 5);
    EXPECT_EQ(kivClock()->armedCount(), 1u);
    EXPECT_EQ(kivClock()->nextTime(), timer.timeMin());
    timer.timeMinIs(kNever);
    EXPECT_EQ(kivClock()->armedCount(), 0u);
    EXPECT_EQ(kivClock()->nextTime(), kNever);
    timer.timeMinIs(now() + 5);
    timer.timeMinIs(std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(timer.timeMin(), kNever);
    Kiv::System::doRun();
    EXPECT_EQ(timer.deliveries, 0);
}

TEST_F(ClockTest, NotifieeRearmsItselfFromOnTime) {
    const double start = now();
    std::vector<double> times;
    Timer periodic;
    periodic.actionIs([&] {
        times.push_back(now());
        if (times.size() < 5) {
            periodic.timeMinIs(start + 60.0 * static_cast<double>(times.size() + 1));
        }
    });
    periodic.timeMinIs(start + 60);
    Kiv::System::doRun();
    ASSERT_EQ(times.size(), 5u);
    for (std::size_t i = 0; i < times.size(); ++i) {
        EXPECT_GE(times[i], start + 60.0 * static_cast<double>(i + 1));
        EXPECT_LT(times[i], start + 60.0 * static_cast<double>(i + 1) + 1);
    }
}

TEST_F(ClockTest, NotifieeDestroysItselfAndOthersFromOnTime) {
    const double t = now() + 1;
    auto victim = std::make_unique<Timer>();
    auto suicidal = std::make_unique<Timer>();
    int suicidalRan = 0;
    suicidal->actionIs([&] {
        ++suicidalRan;
        victim.reset();  // due at the same time, not yet delivered
        suicidal.reset();
    });
    suicidal->timeMinIs(t);
    victim->timeMinIs(t);
    Timer after;
    after.timeMinIs(t);
    Kiv::System::doRun();
    EXPECT_EQ(suicidalRan, 1);
    EXPECT_EQ(after.deliveries, 1);
    EXPECT_EQ(kivClock()->armedCount(), 0u);
}

TEST_F(ClockTest, NotifieeWithoutClockKeepsTimeUntilGivenOne) {
    struct Bare : Kiv::Clock::Notifiee {
        void onTime() override { ++deliveries; }
        int deliveries = 0;
    } bare;
    bare.timeMinIs(0.0);
    EXPECT_EQ(kivClock()->armedCount(), 0u);
    bare.notifierIs(kivClock());
    EXPECT_EQ(kivClock()->armedCount(), 1u);
    Kiv::System::doRun();
    EXPECT_EQ(bare.deliveries, 1);
}

TEST_F(ClockTest, SwitchingVirtualTimeOffKeepsTheClockMonotonic) {
    Timer timer;
    timer.timeMinIs(now() + 7200);
    Kiv::System::doRun();
    const double lead = kivClock()->lead();
    const double reached = now();
    Kiv::activityManager()->config()->virtualTimeIs(false);
    EXPECT_GE(now(), reached);
    EXPECT_EQ(kivClock()->lead(), lead);
    EXPECT_GE(lead, 7200 - 1);
}

}  // namespace
