#include "scheduler/SchedulerFixture.h"

#include "Kiv/Ticks.h"

namespace {

using Velik::TaskPriority;
using Velik::TaskShouldYieldMode;
using Velik::TaskTimeDuration;
using VelikTest::advanceNs;
using VelikTest::fakeNow;
using VelikTest::ProbeTask;

// The names and letters show in every report (checked there).
TEST(TaskPriority, InvalidValuesAssertWithTheirNumber) {
    auto six = static_cast<TaskPriority>(6);
    EXPECT_ASSERT_TEXT(Velik::toStrep(six), "unexpected priority value 6");
    EXPECT_ASSERT_TEXT(Velik::oneChar(six), "unexpected priority 6");
}

class TaskTest : public VelikTest::SchedulerTest {};

TEST_F(TaskTest, RunsAreRecordedBetweenBusyAndIdle) {
    auto t = task(TaskPriority::high, "t");
    int left = 2;
    t->body = [&](ProbeTask& self) {
        if (--left > 0) {
            self.scheduleTask();
        }
    };
    t->scheduleTask();
    EXPECT_EQ(control->requests, 1);
    runUntilIdle();
    EXPECT_TRUE(
        historyHasInOrder({"create H t", "schedule H t", "schedulerRunnable testRoot", "busy H t",
                           "run start H t", "schedule H t", "run end H t", "run start H t",
                           "run end H t", "idle H t", "schedulerIdle testRoot"}));
    EXPECT_EQ(historyCount("busy H t"), 1);
}

// Requests that change nothing record nothing; a task suspended while queued
// leaves the queue, and unsuspending queues it again.
TEST_F(TaskTest, RepeatedRequestsRecordNothingAndSuspensionRequeues) {
    auto t = task(TaskPriority::high, "t");
    t->scheduleTask();
    t->scheduleTask();
    t->taskSuspendedIs(true);
    t->scheduleTask();
    t->taskSuspendedIs(true);
    EXPECT_FALSE(t->taskScheduled());
    t->taskSuspendedIs(false);
    EXPECT_TRUE(t->taskScheduled());
    EXPECT_TRUE(
        historyHasInOrder({"suspendOn H t", "scheduleSus H t", "suspendOff H t", "schedule H t"}));
    EXPECT_EQ(historyCount("schedule H t") + historyCount("suspendOn H t"), 3);
    root->clearHistory();
    advanceNs(3'000);
    t->unscheduleTask();
    t->unscheduleTask();
    EXPECT_EQ(historyCount("unschedule H t"), 1);
    EXPECT_EQ(t->lastSchedulingLatency(), TaskTimeDuration(3'000));
}

// A run's end stamps its record, a reschedule made inside it and the
// scheduler's next run request; a failed run returns nothing and leaves the
// task marked running.
TEST_F(TaskTest, TheRunsEndStampsItsRecordItsRescheduleAndTheNextRequest) {
    auto t = task(TaskPriority::normal, "t");
    t->body = [](ProbeTask& self) {
        advanceNs(2'500);
        self.scheduleTask();
    };
    const Velik::TaskTimePoint start = fakeNow();
    const Velik::TaskRunRecord run = t->taskDoRun(start);
    const auto end = start + TaskTimeDuration(2'500);
    EXPECT_EQ(std::tuple(run.endTime, run.elapsed, t->taskTotalRunTime(), t->taskScheduledTime()),
              std::tuple(end, TaskTimeDuration(2'500), TaskTimeDuration(2'500), end));
    runOnce();
    EXPECT_EQ(root->lastRunRequestTime(), fakeNow());
    advanceNs(700);
    runOnce();
    EXPECT_EQ(t->lastSchedulingLatency(), TaskTimeDuration(700));

    t->unscheduleTask();
    t->body = [](ProbeTask&) { throw std::runtime_error("failed"); };
    EXPECT_THROW(t->taskDoRun(fakeNow()), std::runtime_error);
    EXPECT_TRUE(t->taskCurrentlyRunning());
}

TEST_F(TaskTest, QuantumLimitsAndViolationBoundaries) {
    auto t = task(TaskPriority::normal, "q");
    t->taskQuantumIs(std::chrono::seconds(1));  // the largest allowed
    EXPECT_ASSERT_TEXT(t->taskQuantumIs(TaskTimeDuration(1'000'000'001)), "Quantum: 1000000001");
    EXPECT_ASSERT_TEXT(t->taskQuantumNoCheckIs(TaskTimeDuration(0)), "Quantum: 0");
    EXPECT_ASSERT_TEXT(t->taskQuantumIs(TaskTimeDuration(-5)), "Quantum: -5");
    EXPECT_ASSERT_TEXT(root->defaultTaskQuantumIs(TaskTimeDuration(0)), "Quantum: 0");
    t->taskQuantumIs(TaskTimeDuration(1'000));
    // Run lengths and the counts after them, as qv200 * 10 + qv500.
    for (auto [ns, counts] : {std::pair{1'999, 0u}, {2'000, 10u}, {4'999, 20u}, {5'000, 21u}}) {
        t->body = [ns = ns](ProbeTask&) { advanceNs(ns); };
        t->taskRunAndRecordFromTest();
        EXPECT_EQ(t->qv200() * 10 + t->qv500(), counts) << ns;
    }
    // The bounds hold for the largest quanta: 5x overflows here.
    t->taskResetStats();
    t->taskQuantumNoCheckIs(TaskTimeDuration(2'000'000'000'000'000'000));
    t->body = [](ProbeTask&) { advanceNs(4'000'000'000'000'000'000); };
    t->taskRunAndRecordFromTest();
    EXPECT_EQ(t->qv200() * 10 + t->qv500(), 10u);
}

// Events hold the display name, interned once and shared with the task's
// name and statistics name; it outlives the task.
TEST_F(TaskTest, HistoryEventsHoldTheDisplayNameInternedOnce) {
    auto& cache = Velik::ConstStringCache::forThisThread();
    const std::size_t before = cache.size();
    auto t = task(TaskPriority::normal, "reader");
    EXPECT_EQ(fmt::format("{}|{}|{}", t->taskDisplayName(), t->taskName(), t->taskStatsName()),
              "N reader|reader|reader");
    t.reset();
    for (const auto& event : root->history()->events()) {
        EXPECT_EQ(event.name.str(), "N reader") << event.eventTypeDisplay();
    }
    EXPECT_EQ(cache.size(), before + 1);
}

// In tick mode the clock is read again once 500 us of processor ticks have
// passed, so a run past its quantum does yield.
TEST_F(TaskTest, TickModeYieldsOnceTheQuantumIsUsed) {
    auto t = task(TaskPriority::normal, "tick");
    t->taskQuantumIs(TaskTimeDuration(1'000'000));
    t->body = [&](ProbeTask& self) {
        EXPECT_FALSE(self.taskShouldYield());
        advanceNs(2'000'000);
        const std::uint64_t start = Kiv::ticks();
        while (Kiv::ticks() - start <= Kiv::ticksPer500Microseconds()) {
        }
        EXPECT_TRUE(self.taskShouldYield());
    };
    t->taskRunAndRecordFromTest();
}

TEST_F(TaskTest, ForcedYieldRatioCountsCallsAndTheTasksOwnBeatsTheRoots) {
    auto a = task(TaskPriority::normal, "a");
    auto b = task(TaskPriority::normal, "b");
    b->taskTestYieldRatioIs(3);
    std::vector<bool> answers;
    for (int i = 0; i < 4; ++i) {
        answers.push_back(b->taskShouldYield());  // never run yet: may ask
    }
    b->taskTestYieldRatioIs(2);  // restarts the count
    answers.push_back(b->taskShouldYield());
    answers.push_back(b->taskShouldYield());
    EXPECT_EQ(answers, (std::vector<bool>{false, false, true, false, false, true}));

    root->taskTestYieldRatioIs(1);  // every call, for tasks without a ratio of their own
    EXPECT_TRUE(a->taskShouldYield() && a->taskShouldYield());
    EXPECT_EQ(b->taskTestYieldRatioEffective(), 2);
    root->virtualTimeIs(true);
    EXPECT_EQ(a->taskShouldYieldMode(), TaskShouldYieldMode::testRatio);  // the ratio wins
    root->taskTestYieldRatioIs(0);
    EXPECT_EQ(a->taskShouldYieldMode(), TaskShouldYieldMode::frameworkTime);
    EXPECT_EQ(root->taskForceYieldInTestCount(), 1u);
    b.reset();  // destruction leaves the forced-yield set
    EXPECT_EQ(root->taskForceYieldInTestCount(), 0u);
    root->virtualTimeIs(false);
    EXPECT_EQ(a->taskShouldYieldMode(), TaskShouldYieldMode::ticks);
}

TEST_F(TaskTest, DestroyedWhileQueuedLeavesNoTraceButItsName) {
    auto t = task(TaskPriority::low, "gone");
    t->scheduleTask();
    t.reset();
    EXPECT_EQ(root->runnableTaskCount() + root->tasksPerPriority(TaskPriority::low), 0u);
    EXPECT_TRUE(historyHasInOrder({"unschedule L gone", "delete L gone"}));
    runUntilIdle();
    EXPECT_TRUE(log.empty());
}

TEST_F(TaskTest, MisuseAssertsWithItsText) {
    EXPECT_ASSERT_TEXT(std::make_shared<ProbeTask>(nullptr, TaskPriority::low, "orphan"),
                       "Need a TaskScheduler");
    auto t = task(TaskPriority::normal, "reg");
    EXPECT_ASSERT_TEXT(root->taskRegister(t.get()), "Task: N reg already registered");
    t->scheduleTask();
    EXPECT_ASSERT_TEXT(root->taskUnregister(t.get()), "Task: N reg scheduled on unregister");
    EXPECT_ASSERT_TEXT(t->taskDoRun(fakeNow()), "TaskImpl::taskDoRun() N reg");
    EXPECT_TRUE(log.empty());
    t->handleDestroy();  // unqueues and unregisters; the destructor must not do it again
    EXPECT_ASSERT_TEXT(root->taskUnregister(t.get()), "Task: N reg not registered");
    // Queueing it again fails at the call, not later on the magic number.
    EXPECT_ASSERT_TEXT(t->scheduleTask(), "Task: N reg scheduled after handleDestroy");
    EXPECT_FALSE(t->taskScheduled());

    EXPECT_ASSERT_TEXT(root->tasksPerPriorityDec(TaskPriority::low), "Priority: low count: 0");
    EXPECT_ASSERT_TEXT(root->runnableTaskCount(static_cast<TaskPriority>(5)), "TaskSchedulerCpp:");
    auto& queue = root->taskRunQueue(TaskPriority::low);
    queue.pickedCountIsForTest(queue.queuedCount() + 1);
    EXPECT_ASSERT_TEXT(root->runnableTaskCount(TaskPriority::low),
                       "Priority: low runnableTasks: -1");
    queue.pickedCountIsForTest(queue.queuedCount());
}

using TaskDeathTest = TaskTest;

TEST_F(TaskDeathTest, DestroyingItselfInsideTheRunAborts) {
    auto t = task(TaskPriority::normal, "self");
    t->body = [](ProbeTask& self) { self.handleDestroy(); };
    t->scheduleTask();
    EXPECT_DEATH(runOnce(),
                 "Task: N self taskMagicNumber: 3735936685 taskMagicNumberConstructed: 1119771390");
}

TEST_F(TaskDeathTest, AskingToYieldOutsideARunAborts) {
    auto t = task(TaskPriority::normal, "outside");
    t->taskRunAndRecordFromTest();
    // Also with throwing assertions: nothing may leave taskShouldYield.
    VelikTest::ThrowingAsserts throwing;
    EXPECT_DEATH(t->taskShouldYield(), "taskCurrentlyRunning: false taskRunCount: 1");
}

}  // namespace
