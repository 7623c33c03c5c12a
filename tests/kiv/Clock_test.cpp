// The framework clock: its notifiees in order, and the processor tick counter.
#include "Kiv/Clock.h"
#include "Kiv/SteadyClock.h"
#include "Kiv/Ticks.h"

#include <random>

#include "kiv/KivLoop.h"

namespace {

using namespace KivTest;
using ClockTest = LoopTest;

Kiv::Clock* kivClock() {
    return config()->clock();
}

// A crowd armed, re-armed and disarmed at random on a coarse grid, so that
// many share a time, against a model: by time, then by latest arming, where
// setting the time already held is no new arming.
TEST_F(ClockTest, CrowdArrivesByTimeThenArming) {
    constexpr int kCount = 300;
    std::mt19937 random(7);
    const double base = now() + 1;
    std::vector<int> arming(kCount, -1), delivered;
    std::vector<std::unique_ptr<Timer>> timers;
    for (int i = 0; i < kCount; ++i) {
        timers.push_back(std::make_unique<Timer>([&delivered, i] { delivered.push_back(i); }));
    }
    for (int round = 0, armings = 0; round < 3000; ++round) {
        const int i = static_cast<int>(random() % kCount);
        double t = base + static_cast<double>(random() % 20);
        if (random() % 4 == 0) {
            t = random() % 2 ? kNever : std::nan("");
            arming[i] = -1;
        } else if (t != timers[i]->timeMin()) {
            arming[i] = armings++;
        }
        timers[i]->timeMinIs(t);
    }
    std::vector<int> expected;
    for (int i = 0; i < kCount; ++i) {
        if (arming[i] >= 0) {
            expected.push_back(i);
        } else {
            EXPECT_EQ(timers[i]->timeMin(), kNever);
        }
    }
    const auto key = [&](int i) { return std::pair(timers[i]->timeMin(), arming[i]); };
    std::sort(expected.begin(), expected.end(), [&](int a, int b) { return key(a) < key(b); });
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(kivClock()->nextTime(), timers[expected.front()]->timeMin());
    const double last = timers[expected.back()]->timeMin();
    Kiv::System::doRun();
    EXPECT_EQ(delivered, expected);

    // Leaving virtual time keeps the lead reached: the clock never runs back.
    const double reached = now();
    EXPECT_GE(reached, last);
    config()->virtualTimeIs(false);
    EXPECT_GE(now(), reached);
}

// Never early, also for times closer together than the loop's own steps.
TEST_F(ClockTest, TimersMicrosecondsApartAreNeverEarly) {
    const double base = now() + 1;
    std::vector<double> lateness;
    std::vector<std::unique_ptr<Timer>> timers;
    for (int i = 9; i >= 0; --i) {
        const double t = base + i * 300e-6;
        timers.push_back(
            std::make_unique<Timer>([&lateness, t] { lateness.push_back(now() - t); }));
        timers.back()->timeMinIs(t);
    }
    Kiv::System::doRun();
    ASSERT_EQ(lateness.size(), timers.size());
    for (const double late : lateness) {
        EXPECT_GE(late, 0.0);
    }
}

TEST_F(ClockTest, NotifieeDestroysItselfAndAnotherDueFromOnTime) {
    const double t = now() + 1;
    auto victim = std::make_unique<Timer>();
    auto suicidal = std::make_unique<Timer>();
    suicidal->action = [&] {
        victim.reset();  // due at the same time, not yet delivered
        suicidal.reset();
    };
    suicidal->timeMinIs(t);
    victim->timeMinIs(t);
    Timer after;
    after.timeMinIs(t);
    Kiv::System::doRun();
    EXPECT_EQ(after.deliveries, 1);
    EXPECT_FALSE(suicidal);
}

// Over 2 ms of steady-clock time the counter moves about four calibrated
// 500 us steps; preemption stretches both clocks alike.
TEST(TicksTest, CounterAdvancesAtTheCalibratedRate) {
    const std::uint64_t per500us = Kiv::ticksPer500Microseconds();
    const auto start = std::chrono::steady_clock::now();
    const std::uint64_t startTicks = Kiv::ticks();
    auto now = start;
    while (now - start < std::chrono::milliseconds(2)) {
        now = std::chrono::steady_clock::now();
    }
    const double steps = static_cast<double>(Kiv::ticks() - startTicks) / per500us;
    const double expected = std::chrono::duration<double>(now - start).count() / 500e-6;
    EXPECT_GT(steps, expected * 0.7);
    EXPECT_LT(steps, expected * 1.3);
}

// The loop's pass reading goes to the first notifiee of a pass only, once,
// and is a real reading taken before that notifiee's delivery; no other
// notifiee, thread or moment sees one.
TEST_F(ClockTest, PassReadingReachesOnlyTheFirstNotifieeOnce) {
    std::vector<std::int64_t> taken, again;
    std::int64_t before = 0, after = 0;
    const auto take = [&] {
        after = Kiv::steadyNanoseconds();
        taken.push_back(Kiv::Clock::takePassReading());
        again.push_back(Kiv::Clock::takePassReading());
    };
    Timer first(take), second(take);
    first.timeMinIs(0.0);
    second.timeMinIs(0.0);
    before = Kiv::steadyNanoseconds();
    Kiv::System::doRun();
    ASSERT_EQ(taken.size(), 2u);
    EXPECT_GE(taken[0], before);
    EXPECT_LE(taken[0], after);
    EXPECT_EQ(taken[1], 0);
    EXPECT_EQ(again, (std::vector<std::int64_t>{0, 0}));
    EXPECT_EQ(Kiv::Clock::takePassReading(), 0);  // outside a delivery

    // A notifiee that throws leaves none behind for code after the loop.
    Timer thrower([] { throw 1; });
    Timer untaken;
    untaken.timeMinIs(0.0);
    thrower.timeMinIs(-1.0);  // delivered first, and takes nothing
    EXPECT_THROW(Kiv::System::doRun(), int);
    EXPECT_EQ(Kiv::Clock::takePassReading(), 0);
    untaken.timeMinIs(kNever);
}

}  // namespace
