#include <Velik/TaskScheduler.h>

#include "foundation/ThrowingAsserts.h"
#include "scheduler/SchedulerFixture.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

using Velik::TaskPriority;
using Velik::TaskTimeDuration;
using VelikTest::advanceNs;
using VelikTest::assertMessageOf;
using VelikTest::ProbeTask;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The run log as one string of first letters: "HHHN...".
std::string letters(const std::vector<std::string>& log) {
    std::string out;
    for (const std::string& name : log) {
        out += name[0];
    }
    return out;
}

class TaskSchedulerTest : public VelikTest::SchedulerTest {};

TEST_F(TaskSchedulerTest, StrictPriorityOneTaskPerRun) {
    auto s = task(TaskPriority::scavenge, "S");
    auto l = task(TaskPriority::low, "L");
    auto n = task(TaskPriority::normal, "N");
    auto h = task(TaskPriority::high, "H");
    auto a = task(TaskPriority::absolute, "A");
    for (auto* t : {s.get(), l.get(), n.get(), h.get(), a.get()}) {
        t->scheduleTask();
    }
    EXPECT_EQ(control->requests, 1);
    runOnce();
    EXPECT_EQ(log, std::vector<std::string>{"A"});
    runUntilIdle();
    EXPECT_EQ(letters(log), "AHNLS");
    EXPECT_FALSE(root->schedulerHasRunnableTasks());
    for (std::size_t p = 0; p < 5; ++p) {
        EXPECT_EQ(root->runTaskCount(static_cast<TaskPriority>(p)), 1u);
    }
}

TEST_F(TaskSchedulerTest, SameQueueRunsInSchedulingOrder) {
    auto x = task(TaskPriority::normal, "x");
    auto y = task(TaskPriority::normal, "y");
    auto z = task(TaskPriority::normal, "z");
    y->scheduleTask();
    z->scheduleTask();
    x->scheduleTask();
    runUntilIdle();
    EXPECT_EQ(letters(log), "yzx");
}

TEST_F(TaskSchedulerTest, NormalRunsOnceAfterEveryNineHighRuns) {
    auto h = task(TaskPriority::high, "H");
    auto n = task(TaskPriority::normal, "N");
    h->alwaysReschedule = n->alwaysReschedule = true;
    h->scheduleTask();
    n->scheduleTask();
    runTimes(50);
    EXPECT_EQ(letters(log),
              "HHHHHHHHHN"
              "HHHHHHHHHN"
              "HHHHHHHHHN"
              "HHHHHHHHHN"
              "HHHHHHHHHN");
}

TEST_F(TaskSchedulerTest, LowRunsOnceAfterEveryNineNormalRuns) {
    auto n = task(TaskPriority::normal, "N");
    auto l = task(TaskPriority::low, "L");
    n->alwaysReschedule = l->alwaysReschedule = true;
    l->scheduleTask();
    n->scheduleTask();
    runTimes(20);
    EXPECT_EQ(letters(log),
              "NNNNNNNNNL"
              "NNNNNNNNNL");
}

TEST_F(TaskSchedulerTest, MoreWaitingHighTasksHoldOffLongerAndLowWorkBumpsSooner) {
    // Two waiting high tasks: 8n > 2 * 64 first holds at n = 17.
    auto h1 = task(TaskPriority::high, "H1");
    auto h2 = task(TaskPriority::high, "H2");
    auto n = task(TaskPriority::normal, "N");
    for (auto* t : {h1.get(), h2.get(), n.get()}) {
        t->alwaysReschedule = true;
        t->scheduleTask();
    }
    runTimes(18);
    EXPECT_EQ(letters(log), std::string(17, 'H') + "N");

    // A waiting normal and a waiting low task weigh 8 + 1 = 9: 9n > 128 at n = 15,
    // and the bumped pick is itself the normal task.
    log.clear();
    auto l = task(TaskPriority::low, "L");
    l->alwaysReschedule = true;
    l->scheduleTask();
    runTimes(16);
    EXPECT_EQ(letters(log), std::string(15, 'H') + "N");
}

TEST_F(TaskSchedulerTest, AbsoluteNeverGivesWayAndScavengeIsNeverBumpedTo) {
    auto a = task(TaskPriority::absolute, "A");
    auto h = task(TaskPriority::high, "H");
    auto s = task(TaskPriority::scavenge, "S");
    a->alwaysReschedule = h->alwaysReschedule = s->alwaysReschedule = true;
    a->scheduleTask();
    h->scheduleTask();
    s->scheduleTask();
    runTimes(30);
    EXPECT_EQ(letters(log), std::string(30, 'A'));
    a->unscheduleTask();
    a->alwaysReschedule = false;
    log.clear();
    runTimes(30);
    EXPECT_EQ(letters(log), std::string(30, 'H'));  // scavenge waits for every queue
}

TEST_F(TaskSchedulerTest, ScavengeRunsOnePerRunAndAbsoluteCutsIn) {
    auto s1 = task(TaskPriority::scavenge, "s1");
    auto s2 = task(TaskPriority::scavenge, "s2");
    auto a = task(TaskPriority::absolute, "A");
    s1->alwaysReschedule = s2->alwaysReschedule = true;
    s1->scheduleTask();
    s2->scheduleTask();
    runTimes(3);
    a->scheduleTask();
    runTimes(2);
    EXPECT_EQ(log, (std::vector<std::string>{"s1", "s2", "s1", "A", "s2"}));
}

TEST_F(TaskSchedulerTest, IdleIsRecordedOnceAndEveryRunRequestsTheNext) {
    auto t = task(TaskPriority::normal, "t");
    t->scheduleTask();
    EXPECT_EQ(control->requests, 1);
    runOnce();
    EXPECT_EQ(control->requests, 2);  // a run always requests the next
    EXPECT_TRUE(root->schedulerHasRunnableTasks());
    runOnce();
    EXPECT_FALSE(root->schedulerHasRunnableTasks());
    EXPECT_FALSE(control->pending);
    EXPECT_EQ(historyLines().front(), "schedulerIdle testRoot");
    const std::size_t events = root->history()->size();
    runOnce();
    EXPECT_EQ(root->history()->size(), events);
}

TEST_F(TaskSchedulerTest, LatencyAndSlipAreMeasuredOnTheFakeClock) {
    auto t = task(TaskPriority::normal, "lat");
    t->scheduleTask();
    advanceNs(5'000);
    runOnce();
    EXPECT_EQ(t->lastSchedulingLatency(), TaskTimeDuration(5'000));
    EXPECT_EQ(t->schedulingLatencyHighWaterMark(), TaskTimeDuration(5'000));
    EXPECT_EQ(root->maxSchedulerSlip(), TaskTimeDuration(5'000));
    t->scheduleTask();
    advanceNs(1'000);
    runOnce();
    EXPECT_EQ(t->lastSchedulingLatency(), TaskTimeDuration(1'000));
    EXPECT_EQ(t->schedulingLatencyHighWaterMark(), TaskTimeDuration(5'000));
}

TEST_F(TaskSchedulerTest, SuspendedRootIgnoresRunsUntilUnsuspended) {
    auto t = task(TaskPriority::normal, "t");
    root->suspendedIs(true);
    root->suspendedIs(true);
    t->scheduleTask();
    EXPECT_EQ(control->requests, 0);  // no callback while suspended
    runOnce();
    EXPECT_TRUE(log.empty());
    auto lines = historyLines();
    EXPECT_EQ(lines[0], "schedulerRunIgnoredWhileSuspended testRoot");
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "schedulerSuspended testRoot"), 1);

    root->suspendedIs(false);
    EXPECT_EQ(control->requests, 1);
    EXPECT_EQ(historyLines()[0], "schedulerUnsuspended testRoot");
    runUntilIdle();
    EXPECT_EQ(log, std::vector<std::string>{"t"});

    // Unsuspending requests a run even with nothing queued.
    root->suspendedIs(true);
    root->suspendedIs(false);
    EXPECT_EQ(control->requests, 3);
}

TEST_F(TaskSchedulerTest, QueueMovesFreezeAPassAndResumeWhereItStopped) {
    auto a = task(TaskPriority::normal, "a");
    auto b = task(TaskPriority::normal, "b");
    auto c = task(TaskPriority::normal, "c");
    a->scheduleTask();
    b->scheduleTask();
    root->taskRunQueuesMovePersistentToTemporary();
    c->scheduleTask();  // waits for the next pass
    auto& queue = root->taskRunQueue(TaskPriority::normal);
    EXPECT_EQ(queue.active, &queue.temporary);
    runOnce();
    EXPECT_EQ(log, std::vector<std::string>{"a"});
    root->taskRunQueuesMoveTemporaryToPersistent();  // pass cut short after a
    EXPECT_EQ(queue.active, &queue.persistent);
    runUntilIdle();
    EXPECT_EQ(letters(log), "abc");

    a->scheduleTask();
    queue.temporary.pushBack(*b);  // corrupt: temporary not empty
    std::string message = assertMessageOf([&] { queue.movePersistentToTemporary(); });
    EXPECT_TRUE(contains(message, "The temporary run queue should always be empty at this point"))
        << message;
    queue.temporary.remove(*b);
}

TEST_F(TaskSchedulerTest, RegistrationErrors) {
    auto t = task(TaskPriority::normal, "reg");
    std::string message = assertMessageOf([&] { root->taskRegister(t.get()); });
    EXPECT_TRUE(contains(message, "Task: N reg already registered")) << message;
    t->scheduleTask();
    message = assertMessageOf([&] { root->taskUnregister(t.get()); });
    EXPECT_TRUE(contains(message, "Task: N reg scheduled on unregister")) << message;
    t->unscheduleTask();
    t->handleDestroy();
    message = assertMessageOf([&] { root->taskUnregister(t.get()); });
    EXPECT_TRUE(contains(message, "Task: N reg not registered")) << message;

    message = assertMessageOf([&] { root->tasksPerPriorityDec(TaskPriority::low); });
    EXPECT_TRUE(contains(message, "Priority: low count: 0")) << message;
    message = assertMessageOf([&] { root->runnableTaskCount(static_cast<TaskPriority>(5)); });
    EXPECT_TRUE(contains(message, "TaskSchedulerCpp:")) << message;
    auto& queue = root->taskRunQueue(TaskPriority::low);
    queue.pickedCount = queue.queuedCount + 1;
    message = assertMessageOf([&] { root->runnableTaskCount(TaskPriority::low); });
    EXPECT_TRUE(contains(message, "Priority: low runnableTasks: -1")) << message;
    queue.pickedCount = queue.queuedCount;
}

TEST_F(TaskSchedulerTest, ExceptionFromTheTaskPassesThrough) {
    auto t = task(TaskPriority::normal, "thrower");
    t->body = [](ProbeTask&) { throw std::runtime_error("task failed"); };
    t->scheduleTask();
    EXPECT_THROW(runOnce(), std::runtime_error);
    EXPECT_EQ(root->currentlyRunningTask(), nullptr);
    EXPECT_TRUE(t->taskCurrentlyRunning());  // left set, as documented
    EXPECT_TRUE(root->schedulerHasRunnableTasks());
    // The next run is requested anyway, so the loop's next pass picks up
    // whatever is queued: the root stays usable after a task's exception.
    EXPECT_TRUE(control->pending);
}

TEST_F(TaskSchedulerTest, TaskDroppingItsLastReferenceLivesUntilTheRunEnds) {
    auto t = task(TaskPriority::normal, "last");
    std::weak_ptr<ProbeTask> watch = t;
    bool runningSeen = false;
    t->body = [&](ProbeTask& self) {
        t.reset();  // the last outside reference
        runningSeen = root->currentlyRunningTask() == &self && !watch.expired();
    };
    t->scheduleTask();
    runOnce();
    EXPECT_TRUE(runningSeen);
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(root->tasks().size(), 0u);
}

TEST_F(TaskSchedulerTest, ForcedYieldSetNotifiesOnEmptyAndNonEmpty) {
    auto a = task(TaskPriority::normal, "a");
    auto b = task(TaskPriority::normal, "b");
    a->taskForceYieldInTestIs(true);
    b->taskForceYieldInTestIs(true);
    EXPECT_EQ(root->taskForceYieldInTestCount(), 2u);
    b.reset();  // destruction removes it from the set
    EXPECT_EQ(root->taskForceYieldInTestCount(), 1u);
    a->taskForceYieldInTestIs(false);
    EXPECT_EQ(root->taskForceYieldInTestCount(), 0u);
}

TEST_F(TaskSchedulerTest, TaskForTestFindsRegisteredTasksByName) {
    auto a = task(TaskPriority::normal, "alpha");
    auto b = task(TaskPriority::low, "beta");
    EXPECT_EQ(root->taskForTest("beta"), b.get());
    EXPECT_EQ(root->taskForTest("alpha"), a.get());
    EXPECT_EQ(root->taskForTest("gamma"), nullptr);
}

}  // namespace
