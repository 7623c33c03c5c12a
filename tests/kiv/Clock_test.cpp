// The framework clock and loop: notifiees in order, the loop's thread and
// the steady clock.
#include "Kiv/Exception.h"
#include "Kiv/SteadyClock.h"

#include <gmock/gmock.h>

#include <random>
#include <ranges>

#include "kiv/KivLoop.h"

namespace {

using namespace KivTest;
using ClockTest = LoopTest;
using MainLoopTest = LoopTest;

// A crowd armed, re-armed and disarmed at random on a grid finer than the
// loop's own steps, so that many share a time, against a model: by time, then
// by latest arming, where setting the time already held is no new arming.
// None is delivered early.
TEST_F(ClockTest, CrowdArrivesByTimeThenArmingAndNeverEarly) {
    constexpr int kCount = 300;
    std::mt19937 random(7);
    const double base = now() + 1;
    std::vector<int> arming(kCount, -1), delivered, expected;
    std::vector<double> due(kCount);
    std::vector<std::unique_ptr<Timer>> timers;
    int early = 0;
    for (int i = 0; i < kCount; ++i) {
        timers.push_back(std::make_unique<Timer>([&, i] {
            delivered.push_back(i);
            early += now() < due[i];
        }));
    }
    for (int round = 0, armings = 0; round < 3000; ++round) {
        const int i = static_cast<int>(random() % kCount);
        double t = base + static_cast<double>(random() % 20) * 300e-6;
        if (random() % 4 == 0) {
            t = random() % 2 ? kNever : std::nan("");
            arming[i] = -1;
        } else if (t != timers[i]->timeMin()) {
            arming[i] = armings++;
        }
        timers[i]->timeMinIs(due[i] = t);
    }
    std::ranges::copy_if(std::views::iota(0, kCount), std::back_inserter(expected),
                         [&](int i) { return arming[i] >= 0; });
    std::ranges::sort(expected, {},
                      [&](int i) { return std::pair(timers[i]->timeMin(), arming[i]); });
    EXPECT_EQ(config()->clock()->nextTime(), timers[expected.front()]->timeMin());
    const double last = timers[expected.back()]->timeMin();
    Kiv::System::doRun();
    EXPECT_EQ(delivered, expected);
    EXPECT_EQ(early, 0);

    // Leaving virtual time keeps the lead reached: the clock never runs back.
    const double reached = now();
    EXPECT_GE(reached, last);
    config()->virtualTimeIs(false);
    EXPECT_GE(now(), reached);
}

TEST_F(ClockTest, NotifieeDestroysItselfAndAnotherDueFromOnTime) {
    auto victim = std::make_unique<Timer>(), suicidal = std::make_unique<Timer>();
    suicidal->action = [&] {
        victim.reset();  // due at the same time, not yet delivered
        suicidal.reset();
    };
    Timer after;
    for (Timer* timer : {suicidal.get(), victim.get(), &after}) {
        timer->timeMinIs(now() + 1);
    }
    Kiv::System::doRun();
    EXPECT_EQ(after.deliveries, 1);
    EXPECT_FALSE(suicidal);
}

// The loop's pass reading goes to the first notifiee of a pass only, once,
// and is a real reading taken before that notifiee's delivery.
TEST_F(ClockTest, PassReadingReachesOnlyTheFirstNotifieeOnce) {
    std::vector<std::int64_t> taken;
    const auto take = [&] {
        taken.push_back(Kiv::Clock::takePassReading());
        taken.push_back(Kiv::Clock::takePassReading());
    };
    Timer first(take), second(take);
    first.timeMinIs(0.0);
    second.timeMinIs(0.0);
    const std::int64_t before = Kiv::steadyNanoseconds();
    Kiv::System::doRun();
    EXPECT_THAT(taken, testing::ElementsAre(testing::Ge(before), 0, 0, 0));
    EXPECT_LE(taken[0], Kiv::steadyNanoseconds());
    EXPECT_EQ(Kiv::Clock::takePassReading(), 0);  // outside a delivery
}

// A notification may run the loop again on the loop's thread; no other thread
// may enter it until the outermost run has returned.
TEST_F(MainLoopTest, OnlyTheLoopsThreadMayEnterItWhileItRuns) {
    std::string error;
    Timer inner, outer([&] {
        Kiv::System::doRun();
        std::thread([&] {
            try {
                Kiv::System::doRun();
            } catch (const Kiv::Exception& e) {
                error = e.what();
            }
        }).join();
    });
    outer.timeMinIs(now() + 1);
    inner.timeMinIs(now() + 5);
    Kiv::System::doRun();
    EXPECT_EQ(inner.deliveries, 1);
    EXPECT_EQ(error, "MainLoop::run: the main loop is already running on another thread");

    inner.timeMinIs(0.0);
    std::thread([] { Kiv::System::doRun(); }).join();
    EXPECT_EQ(inner.deliveries, 2);
}

// Readings never step back, also across re-measurements of the counter's
// scale, and stay on the scale of CLOCK_MONOTONIC (nanoseconds since boot),
// which the standard steady clock reads here.
TEST(SteadyClockTest, NeverStepsBackAcrossRemeasurementsAndTracksMonotonic) {
    std::int64_t last = Kiv::steadyNanoseconds();
    for (int i = 0; i < 10000; ++i) {
        if (i % 50 == 0) {
            Kiv::Impl::steadyClockRemeasureForTest();
        }
        const std::int64_t reading = Kiv::steadyNanoseconds();
        ASSERT_GE(reading, last) << i;
        last = reading;
    }
    const auto monotonic = [] {
        return std::chrono::steady_clock::now().time_since_epoch().count();
    };
    const std::int64_t before = monotonic(), reading = Kiv::steadyNanoseconds(),
                       after = monotonic();
    // Generous: a preempted thread may be descheduled between the reads.
    EXPECT_GT(reading, before - 1'000'000);
    EXPECT_LT(reading, after + 1'000'000);
}

}  // namespace
