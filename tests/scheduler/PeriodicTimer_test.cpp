// Periodic timer tasks on each platform under virtual time: a fixed-rate grid
// that does not drift over an hour, missed expiries counted when a run comes
// late, fixed-delay spacing from the end of each run.
#include <Velik/LambdaTask.h>
#include <Velik/PeriodicTimerTask.h>

#include "platform/Families.h"
#include "scheduler/SchedulerFixture.h"

#include <chrono>
#include <vector>

namespace {

using namespace Velik;
using namespace std::chrono_literals;
using Platform::doEventLoop;

// What one run saw: the clock, and the expiry it served.
struct Sample {
    double at;
    double expiry;
};

auto recorder(std::vector<Sample>& runs) {
    return [&runs](PeriodicTimerTask& self) { runs.push_back({Velik::time(), self.lastExpiry()}); };
}

using PeriodicTimer = VelikTest::FamilyTest;

// Every run of an hour serves exactly first + k periods, never early and
// within a wheel tick or two of it; no expiry is missed or doubled.
TEST_P(PeriodicTimer, FixedRateHourOnTheGrid) {
    run([] {
        std::vector<Sample> runs;
        runs.reserve(3600);
        auto task = makePeriodicTimerTask(schedulerRootVelik(), TaskPriority::normal, "tick",
                                          PeriodicTimerMode::fixedRate, 1s, recorder(runs));
        const double first = task->nextExpiry();
        doEventLoop(3600.5);
        ASSERT_EQ(runs.size(), 3600u);
        for (std::size_t k = 0; k < runs.size(); ++k) {
            const double expiry = first + static_cast<double>(k) * 1.0;
            ASSERT_EQ(runs[k].expiry, expiry) << "run " << k;
            ASSERT_GE(runs[k].at, expiry) << "run " << k;
            ASSERT_LT(runs[k].at, expiry + 0.05) << "run " << k;
        }
        EXPECT_EQ(task->expiryCount(), 3600u);
        EXPECT_EQ(task->missedCount(), 0u);
        EXPECT_EQ(task->nextExpiry(), first + 3600.0);
    });
}

// A run that comes late by 3.7 periods (the task was suspended across them)
// serves its expiry once; the periods that passed are counted, not run, and
// the next expiry is back on the grid. At fixed delay the late run instead
// sets the next expiry one period after itself, and nothing counts as
// missed.
TEST_P(PeriodicTimer, LateRunCountsMissedAtFixedRateAndShiftsAtFixedDelay) {
    run([] {
        std::vector<Sample> rate, delay;
        auto root = schedulerRootVelik();
        auto fixedRate = makePeriodicTimerTask(root, TaskPriority::normal, "rate",
                                               PeriodicTimerMode::fixedRate, 1s, recorder(rate));
        auto fixedDelay = makePeriodicTimerTask(root, TaskPriority::normal, "delay",
                                                PeriodicTimerMode::fixedDelay, 1s, recorder(delay));
        const double first = fixedRate->nextExpiry();
        fixedDelay->periodicStartAt(first, 1.0);
        doEventLoop(1.5);  // one run each, at first
        fixedRate->taskSuspendedIs(true);
        fixedDelay->taskSuspendedIs(true);
        // The framework loop ends once nothing is armed; a far timer keeps
        // virtual time moving to the limit.
        auto keeper = makeTimerTask(root, TaskPriority::low, "keeper", [](TimerTask&) {});
        keeper->scheduleTaskDelay(1000.0);
        doEventLoop(3.7);  // both fire once and stay unrun
        fixedRate->taskSuspendedIs(false);
        fixedDelay->taskSuspendedIs(false);
        doEventLoop(0.01);  // the two late runs

        ASSERT_EQ(rate.size(), 2u);
        EXPECT_EQ(rate[1].expiry, first + 1.0);
        EXPECT_EQ(fixedRate->expiryCount(), 2u);
        // first + 2 .. first + 4 passed unrun; first + 5 lies ahead.
        EXPECT_EQ(fixedRate->missedCount(), 3u);
        EXPECT_EQ(fixedRate->currentExpirationTime(), first + 5.0);

        ASSERT_EQ(delay.size(), 2u);
        EXPECT_EQ(fixedDelay->missedCount(), 0u);

        // Each fixed-delay expiry lies one period after the run before it
        // (the late one included), not on the grid.
        doEventLoop(10.0);
        ASSERT_GE(delay.size(), 10u);
        for (std::size_t k = 1; k < delay.size(); ++k) {
            EXPECT_GE(delay[k].expiry - delay[k - 1].at, 1.0) << "run " << k;
            EXPECT_LT(delay[k].expiry - delay[k - 1].at, 1.05) << "run " << k;
        }
    });
}

INSTANTIATE_TEST_SUITE_P(BothPlatforms, PeriodicTimer,
                         testing::Values(VelikTest::Family::framework, VelikTest::Family::libevent),
                         VelikTest::familyName);

using PeriodicTimerControl = VelikTest::SchedulerTest;

// The handler may yield or stop the timer: a yielded run's slices count one
// expiry and keep the grid; a stop ends the runs. A period must be positive.
TEST_F(PeriodicTimerControl, YieldKeepsTheGridAndStopEnds) {
    VelikTest::virtualTimeIs(VelikTest::Family::framework, true);
    int slices = 0;
    auto task =
        makePeriodicTimerTask(root, TaskPriority::normal, "sliced", PeriodicTimerMode::fixedRate,
                              2s, [&slices](PeriodicTimerTask& self) {
                                  if (++slices % 2 == 1) {
                                      self.scheduleTask();  // one more slice
                                  }
                                  if (slices == 6) {
                                      self.periodicStop();
                                  }
                              });
    const double first = task->nextExpiry();
    for (int i = 0; i < 10; ++i) {
        Platform::doEventLoop(1.0);
        runUntilIdle();
    }
    VelikTest::virtualTimeIs(VelikTest::Family::framework, false);
    EXPECT_EQ(slices, 6);
    EXPECT_EQ(task->expiryCount(), 3u);
    EXPECT_EQ(task->lastExpiry(), first + 4.0);
    EXPECT_EQ(task->missedCount(), 0u);
    EXPECT_FALSE(task->taskScheduled());

    EXPECT_ASSERT_TEXT(task->periodicStart(0s), "period: 0");
    EXPECT_ASSERT_TEXT(task->periodicStartAt(Velik::time(), -1.0), "period: -1");
}

}  // namespace
