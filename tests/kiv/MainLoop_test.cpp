#include "Kiv/MainLoop.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <stdexcept>
#include <thread>

#include "Kiv/ActivityManager.h"
#include "Kiv/Exception.h"
#include "Kiv/System.h"

namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();

Kiv::ActivityManagerConfig* config() {
    return Kiv::activityManager()->config();
}

class Timer : public Kiv::Clock::Notifiee {
  public:
    explicit Timer(std::function<void()> action = {})
        : Notifiee(config()->clock()), action_(std::move(action)) {}
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

class MainLoopTest : public ::testing::Test {
  protected:
    void SetUp() override { config()->virtualTimeIs(true); }
    void TearDown() override {
        config()->virtualTimeIs(false);
        config()->executionTimeIs(kNever);
    }
    double now() { return Kiv::System::currentTime(); }
};

TEST_F(MainLoopTest, ReturnsAtOnceWithoutWork) {
    const std::uint64_t passes = Kiv::activityManager()->mainLoop()->passes();
    Kiv::System::doRun();
    EXPECT_EQ(Kiv::activityManager()->mainLoop()->passes(), passes);
}

TEST_F(MainLoopTest, ExecutionTimeBoundsTheRunInVirtualTime) {
    const double start = now();
    int ticks = 0;
    Timer periodic;
    periodic.actionIs([&] {
        ++ticks;
        periodic.timeMinIs(start + 1.0 + ticks);
    });
    periodic.timeMinIs(start + 1.0);
    config()->executionTimeIs(10);
    Kiv::System::doRun();
    EXPECT_EQ(ticks, 10);
    EXPECT_GE(now(), start + 10);
    EXPECT_LT(now(), start + 10.5);
    EXPECT_EQ(periodic.timeMin(), start + 11.0);  // still armed for later runs

    // The setting stays for the next run, measured from that run's start.
    Kiv::System::doRun();
    EXPECT_EQ(ticks, 20);
}

TEST_F(MainLoopTest, ZeroExecutionTimeRunsOnePass) {
    Timer deferred;
    deferred.actionIs([&] { deferred.timeMinIs(0.0); });
    deferred.timeMinIs(0.0);
    config()->executionTimeIs(0);
    Kiv::System::doRun();
    EXPECT_EQ(deferred.deliveries, 1);
    Kiv::System::doRun();
    EXPECT_EQ(deferred.deliveries, 2);
}

TEST_F(MainLoopTest, ExecutionTimeBoundsTheRunInRealTime) {
    config()->virtualTimeIs(false);
    Timer far;
    far.timeMinIs(now() + 3600);
    const double start = now();
    config()->executionTimeIs(0.005);
    Kiv::System::doRun();
    EXPECT_GE(now(), start + 0.005);
    EXPECT_EQ(far.deliveries, 0);
}

TEST_F(MainLoopTest, RealTimeNotifieeIsNotDeliveredEarly) {
    config()->virtualTimeIs(false);
    double seen = 0;
    Timer soon([&] { seen = now(); });
    soon.timeMinIs(now() + 0.003);
    const double due = soon.timeMin();
    Kiv::System::doRun();
    EXPECT_GE(seen, due);
}

TEST_F(MainLoopTest, DeferredCallbackRoundTripsUntilItStops) {
    Timer deferred;
    deferred.actionIs([&] {
        if (deferred.deliveries < 100000) {
            deferred.timeMinIs(0.0);
        }
    });
    deferred.timeMinIs(0.0);
    Kiv::System::doRun();
    EXPECT_EQ(deferred.deliveries, 100000);
}

TEST_F(MainLoopTest, ExceptionLeavesDoRunAndTheLoopStaysUsable) {
    Timer other;
    Timer thrower([&] {
        other.timeMinIs(0.0);  // armed during the failing delivery
        throw std::runtime_error("boom");
    });
    Timer later;
    thrower.timeMinIs(now() + 1);
    later.timeMinIs(now() + 2);
    EXPECT_THROW(Kiv::System::doRun(), std::runtime_error);
    EXPECT_EQ(thrower.deliveries, 1);
    EXPECT_EQ(thrower.timeMin(), kNever);
    EXPECT_EQ(Kiv::activityManager()->clock()->armedCount(), 2u);

    Kiv::System::doRun();
    EXPECT_EQ(thrower.deliveries, 1);
    EXPECT_EQ(other.deliveries, 1);
    EXPECT_EQ(later.deliveries, 1);
}

TEST_F(MainLoopTest, NotificationMayRunANestedLoop) {
    Timer inner;
    Timer outer([&] { Kiv::System::doRun(); });
    outer.timeMinIs(now() + 1);
    inner.timeMinIs(now() + 5);
    Kiv::System::doRun();
    EXPECT_EQ(outer.deliveries, 1);
    EXPECT_EQ(inner.deliveries, 1);
}

TEST_F(MainLoopTest, SecondThreadCannotRunTheLoopWhileItRuns) {
    std::string error;
    Timer timer([&] {
        std::thread other([&] {
            try {
                Kiv::System::doRun();
            } catch (const Kiv::Exception& e) {
                error = e.what();
            }
        });
        other.join();
    });
    timer.timeMinIs(0.0);
    Kiv::System::doRun();
    EXPECT_EQ(error, "MainLoop::run: the main loop is already running on another thread");

    // Once the loop has returned, any thread may run it.
    Timer next;
    next.timeMinIs(0.0);
    std::thread([] { Kiv::System::doRun(); }).join();
    EXPECT_EQ(next.deliveries, 1);
}

}  // namespace
