#include <Velik/Task.h>
#include <Velik/TaskPriority.h>

#include "foundation/ThrowingAsserts.h"
#include "scheduler/SchedulerFixture.h"

#include <gtest/gtest.h>

#include "Kiv/Ticks.h"

#include <sstream>

namespace {

using Velik::TaskPriority;
using Velik::TaskShouldYieldMode;
using Velik::TaskTimeDuration;
using VelikTest::advanceNs;
using VelikTest::assertMessageOf;
using VelikTest::ProbeTask;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(TaskPriority, NamesLettersAndInvalidValues) {
    const char* names[] = {"absolute", "high", "normal", "low", "scavenge", "oneBeyondLast"};
    const char* letters = "AHNLS-";
    for (int i = 0; i <= 5; ++i) {
        auto p = static_cast<TaskPriority>(i);
        EXPECT_STREQ(Velik::toStrep(p), names[i]);
        EXPECT_EQ(Velik::oneChar(p), letters[i]);
        EXPECT_EQ(Velik::oneCharString(p), std::string(1, letters[i]));
    }
    std::ostringstream out;
    out << TaskPriority::scavenge;
    EXPECT_EQ(out.str(), "scavenge");
    EXPECT_EQ(fmt::format("{}", TaskPriority::high), "high");

    auto six = static_cast<TaskPriority>(6);
    std::string message = assertMessageOf([&] { Velik::toStrep(six); });
    EXPECT_TRUE(contains(message, "TaskSchedulerCpp:")) << message;
    EXPECT_TRUE(contains(message, "unexpected priority value 6")) << message;
    message = assertMessageOf([&] { Velik::oneChar(six); });
    EXPECT_TRUE(contains(message, "unexpected priority 6")) << message;
}

class TaskTest : public VelikTest::SchedulerTest {};

TEST_F(TaskTest, ConstructionRegistersWithNamesAndDefaults) {
    auto reader = task(TaskPriority::normal, "reader");
    EXPECT_EQ(reader->taskDisplayName().str(), "N reader");
    EXPECT_EQ(reader->taskStatsName().str(), "reader");
    EXPECT_EQ(reader->taskQuantum(), std::chrono::milliseconds(20));
    EXPECT_EQ(reader->taskMagicNumber(), 0x42BE5AFEu);
    EXPECT_TRUE(reader->includeInCompletedTask());
    EXPECT_EQ(reader->taskShouldYieldMode(), TaskShouldYieldMode::ticks);
    EXPECT_EQ(root->tasksPerPriority(TaskPriority::normal), 1u);
    EXPECT_EQ(root->taskForTest("reader"), reader.get());
    EXPECT_EQ(historyLines().front(), "create N reader");
    EXPECT_EQ(reader->taskKey().toStrep(),
              fmt::format("{:#x}", reinterpret_cast<std::uintptr_t>(reader.get())));

    reader->taskStatsNameIs("readers");
    EXPECT_EQ(reader->taskStatsName().str(), "readers");
    EXPECT_EQ(reader->taskName().str(), "reader");
    std::ostringstream out;
    out << static_cast<const Velik::_TaskBase*>(reader.get());
    EXPECT_EQ(out.str(), "N reader");
}

TEST_F(TaskTest, ConstructionWithoutSchedulerAsserts) {
    std::string message =
        assertMessageOf([] { std::make_shared<ProbeTask>(nullptr, TaskPriority::low, "orphan"); });
    EXPECT_TRUE(contains(message, "Need a TaskScheduler")) << message;
}

TEST_F(TaskTest, ScheduleTwiceQueuesOnceAndRequestsOneRun) {
    auto t = task(TaskPriority::high, "t");
    t->scheduleTask();
    t->scheduleTask();
    EXPECT_TRUE(t->taskScheduled());
    EXPECT_EQ(root->runnableTaskCount(TaskPriority::high), 1u);
    EXPECT_EQ(root->taskRunQueue(TaskPriority::high).queuedCount, 1u);
    EXPECT_EQ(control->requests, 1);
    EXPECT_TRUE(t->taskBusy());
    EXPECT_EQ(historyLines(), (std::vector<std::string>{"busy H t", "schedulerRunnable testRoot",
                                                        "schedule H t", "create H t"}));
    EXPECT_TRUE(t->taskStatus().taskOnRunQueue());

    advanceNs(3'000);
    t->unscheduleTask();
    EXPECT_FALSE(t->taskScheduled());
    EXPECT_EQ(t->lastSchedulingLatency(), TaskTimeDuration(3'000));
    EXPECT_EQ(root->runnableTaskCount(), 0u);
    EXPECT_EQ(historyLines().front(), "unschedule H t");
    t->unscheduleTask();  // not queued: nothing happens
    EXPECT_EQ(historyLines().front(), "unschedule H t");
}

TEST_F(TaskTest, SuspensionDropsRequestsAndUnsuspendingQueues) {
    auto t = task(TaskPriority::normal, "s");
    t->scheduleTask();
    t->taskSuspendedIs(true);
    EXPECT_FALSE(t->taskScheduled());
    EXPECT_TRUE(t->taskStatus().taskSuspended());
    t->scheduleTask();
    EXPECT_FALSE(t->taskScheduled());
    EXPECT_EQ(historyLines()[0], "scheduleSus N s");
    EXPECT_EQ(historyLines()[1], "unschedule N s");
    EXPECT_EQ(historyLines()[2], "suspendOn N s");
    t->taskSuspendedIs(true);  // unchanged: no event
    EXPECT_EQ(historyLines()[0], "scheduleSus N s");

    t->taskSuspendedIs(false);
    EXPECT_TRUE(t->taskScheduled());
    EXPECT_EQ(historyLines()[0], "schedule N s");
    EXPECT_EQ(historyLines()[1], "suspendOff N s");

    // Unsuspending queues even a task that never asked.
    auto quiet = task(TaskPriority::normal, "quiet");
    quiet->taskSuspendedIs(true);
    quiet->taskSuspendedIs(false);
    EXPECT_TRUE(quiet->taskScheduled());
}

TEST_F(TaskTest, QuantumLimits) {
    auto t = task(TaskPriority::normal, "q");
    t->taskQuantumIs(std::chrono::seconds(1));
    EXPECT_EQ(t->taskQuantum(), std::chrono::seconds(1));
    std::string message =
        assertMessageOf([&] { t->taskQuantumIs(TaskTimeDuration(1'000'000'001)); });
    EXPECT_TRUE(contains(message, "Quantum: 1000000001")) << message;
    EXPECT_EQ(t->taskQuantum(), std::chrono::seconds(1));
    message = assertMessageOf([&] { t->taskQuantumNoCheckIs(TaskTimeDuration(0)); });
    EXPECT_TRUE(contains(message, "Quantum: 0")) << message;
    message = assertMessageOf([&] { t->taskQuantumIs(TaskTimeDuration(-5)); });
    EXPECT_TRUE(contains(message, "Quantum: -5")) << message;
    t->taskQuantumNoCheckIs(std::chrono::seconds(5));  // no upper limit here
    EXPECT_EQ(t->taskQuantum(), std::chrono::seconds(5));
}

TEST_F(TaskTest, RunTimingAndQuantumViolationBoundaries) {
    auto t = task(TaskPriority::normal, "v");
    t->taskQuantumIs(TaskTimeDuration(1'000));
    auto runFor = [&](std::int64_t ns) {
        t->runTime = TaskTimeDuration(ns);
        t->taskRunAndRecordFromTest();
    };
    runFor(1'999);
    EXPECT_EQ(t->qv200(), 0u);
    runFor(2'000);  // exactly twice the quantum
    EXPECT_EQ(t->qv200(), 1u);
    runFor(4'999);
    EXPECT_EQ(t->qv200(), 2u);
    EXPECT_EQ(t->qv500(), 0u);
    runFor(5'000);  // exactly five times
    EXPECT_EQ(t->qv500(), 1u);
    EXPECT_EQ(t->qv200(), 2u);
    EXPECT_EQ(t->taskRunCount(), 4u);
    EXPECT_EQ(t->taskTotalRunTime(), TaskTimeDuration(1'999 + 2'000 + 4'999 + 5'000));
    EXPECT_EQ(t->taskMaxRunTime(), TaskTimeDuration(5'000));
    EXPECT_EQ(historyLines()[0], "run end N v");
    EXPECT_EQ(historyLines()[1], "run start N v");

    // The plain test run leaves the statistics as they were.
    t->runTime = TaskTimeDuration(9'000);
    t->taskRunFromTest();
    EXPECT_EQ(t->taskRunCount(), 4u);
    EXPECT_EQ(t->qv500(), 1u);
}

TEST_F(TaskTest, BusyWhileReschedulingIdleWhenDone) {
    auto t = task(TaskPriority::normal, "b");
    int left = 2;
    t->body = [&](ProbeTask& self) {
        if (--left > 0) {
            self.scheduleTask();
        }
    };
    t->scheduleTask();
    runUntilIdle();
    EXPECT_EQ(log, (std::vector<std::string>{"b", "b"}));
    EXPECT_FALSE(t->taskBusy());
    auto lines = historyLines();
    EXPECT_EQ(lines[0], "schedulerIdle testRoot");
    EXPECT_EQ(lines[1], "idle N b");
    EXPECT_EQ(lines[2], "run end N b");
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "busy N b"), 1);
}

TEST_F(TaskTest, TestYieldRatioYieldsOnEveryRatioThCall) {
    auto t = task(TaskPriority::normal, "y");
    t->taskTestYieldRatioIs(3);
    EXPECT_EQ(t->taskShouldYieldMode(), TaskShouldYieldMode::testRatio);
    EXPECT_EQ(historyLines().front(), "frcYieldOn N y");
    std::vector<bool> answers;
    for (int i = 0; i < 6; ++i) {
        answers.push_back(t->taskShouldYield());  // never run yet: may ask
    }
    EXPECT_EQ(answers, (std::vector<bool>{false, false, true, false, false, true}));
    t->taskShouldYield();
    t->taskTestYieldRatioIs(2);  // restarts the count
    EXPECT_FALSE(t->taskShouldYield());
    EXPECT_TRUE(t->taskShouldYield());

    t->taskForceYieldInTestIs(true);
    EXPECT_TRUE(t->taskForceYieldInTest());
    EXPECT_TRUE(t->taskShouldYield());
    EXPECT_TRUE(t->taskShouldYield());
    t->taskTestYieldRatioIs(0);
    EXPECT_EQ(historyLines().front(), "frcYieldOff N y");
    EXPECT_EQ(t->taskShouldYieldMode(), TaskShouldYieldMode::ticks);
}

TEST_F(TaskTest, TickModeConsultsTheClockAgainAfterAYield) {
    auto t = task(TaskPriority::normal, "tick");
    t->taskQuantumIs(TaskTimeDuration(1'000'000));
    std::vector<bool> answers;
    t->body = [&](ProbeTask& self) {
        answers.push_back(self.taskShouldYield());  // first call: reads the clock
        advanceNs(2'000'000);
        // Within 500 us of processor ticks the clock is not read again.
        answers.push_back(self.taskShouldYield());
        const std::uint64_t start = Kiv::ticks();
        while (Kiv::ticks() - start <= Kiv::ticksPer500Microseconds()) {
        }
        answers.push_back(self.taskShouldYield());
        answers.push_back(self.taskShouldYield());  // after a yield: read again
    };
    t->taskRunAndRecordFromTest();
    EXPECT_EQ(answers, (std::vector<bool>{false, false, true, true}));
}

TEST_F(TaskTest, RootRatioAppliesUnlessTheTaskHasItsOwn) {
    auto a = task(TaskPriority::normal, "a");
    auto b = task(TaskPriority::normal, "b");
    b->taskTestYieldRatioIs(5);
    root->taskTestYieldRatioIs(2);
    EXPECT_EQ(a->taskTestYieldRatioEffective(), 2);
    EXPECT_EQ(b->taskTestYieldRatioEffective(), 5);
    EXPECT_EQ(a->taskShouldYieldMode(), TaskShouldYieldMode::testRatio);
    EXPECT_EQ(root->taskForceYieldInTestCount(), 2u);
    root->taskTestYieldRatioIs(0);
    EXPECT_EQ(a->taskTestYieldRatioEffective(), 0);
    EXPECT_EQ(a->taskShouldYieldMode(), TaskShouldYieldMode::ticks);
    EXPECT_EQ(root->taskForceYieldInTestCount(), 1u);

    root->virtualTimeIs(true);
    EXPECT_EQ(a->taskShouldYieldMode(), TaskShouldYieldMode::frameworkTime);
    EXPECT_EQ(b->taskShouldYieldMode(), TaskShouldYieldMode::testRatio);
    root->virtualTimeIs(false);
    EXPECT_EQ(a->taskShouldYieldMode(), TaskShouldYieldMode::ticks);
}

TEST_F(TaskTest, WorkCountsAveragesAndHighWaterMarks) {
    auto t = task(TaskPriority::normal, "w");
    EXPECT_FALSE(t->workCountHighWaterMark().hasValue());
    t->taskWorkCountInc(10);
    EXPECT_EQ(t->workCountDecayAvg(), 10.0f);
    EXPECT_EQ(t->workCountHighWaterMark().value(), 10u);
    t->taskWorkCountInc(0);
    EXPECT_FLOAT_EQ(t->workCountDecayAvg(), 9.0f);
    EXPECT_EQ(t->workCountHighWaterMark().value(), 10u);
    t->taskWorkCountInc(20);
    EXPECT_FLOAT_EQ(t->workCountDecayAvg(), (9.0f * 9.0f + 20.0f) / 10.0f);
    EXPECT_EQ(t->workCountHighWaterMark().value(), 20u);
    EXPECT_EQ(t->workCountTotal(), 30u);
    t->taskWorkCountInc(0xFFFFFFFFu);  // all ones is "no value": kept one lower
    EXPECT_EQ(t->workCountHighWaterMark().value(), 0xFFFFFFFEu);

    t->taskWorkPendingIs(0);
    EXPECT_EQ(t->workPendingHighWaterMark().value(), 0u);
    t->taskWorkPendingIs(7);
    t->taskWorkPendingIs(3);
    EXPECT_EQ(t->workPending(), 3u);
    EXPECT_EQ(t->workPendingHighWaterMark().value(), 7u);

    t->runTime = TaskTimeDuration(100);
    t->taskRunAndRecordFromTest();
    t->taskResetStats();
    EXPECT_EQ(t->taskRunCount(), 0u);
    EXPECT_EQ(t->workCountTotal(), 0u);
    EXPECT_EQ(t->taskMaxRunTime(), TaskTimeDuration(0));
    EXPECT_FALSE(t->workCountHighWaterMark().hasValue());
    EXPECT_FALSE(t->workPendingHighWaterMark().hasValue());
}

TEST_F(TaskTest, DestroyedWhileQueuedLeavesNoTraceButItsName) {
    auto t = task(TaskPriority::low, "gone");
    t->scheduleTask();
    t.reset();
    EXPECT_EQ(root->runnableTaskCount(TaskPriority::low), 0u);
    EXPECT_EQ(root->tasksPerPriority(TaskPriority::low), 0u);
    EXPECT_EQ(root->tasks().size(), 0u);
    auto lines = historyLines();
    EXPECT_EQ(lines[0], "delete L gone");
    EXPECT_EQ(lines[1], "unschedule L gone");
    runUntilIdle();
    EXPECT_TRUE(log.empty());
    // The history still names the task after it is gone.
    EXPECT_TRUE(contains(root->historyRenderTextForDebugToString(), "delete       L gone"));
}

TEST_F(TaskTest, HandleDestroyUnregistersOnce) {
    auto t = task(TaskPriority::normal, "hd");
    t->scheduleTask();
    t->handleDestroy();
    EXPECT_EQ(t->taskMagicNumber(), 0xDEADDEADu);
    EXPECT_EQ(root->tasks().size(), 0u);
    t.reset();  // the destructor does not unregister again
    EXPECT_EQ(root->tasksPerPriority(TaskPriority::normal), 0u);
}

TEST_F(TaskTest, RunningAQueuedTaskAsserts) {
    auto t = task(TaskPriority::normal, "queued");
    t->scheduleTask();
    std::string message = assertMessageOf([&] {
        Velik::TaskTimePoint end;
        t->taskDoRun(VelikTest::fakeNow(), end);
    });
    EXPECT_TRUE(contains(message, "TaskImpl::taskDoRun() N queued")) << message;
    EXPECT_TRUE(log.empty());
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
