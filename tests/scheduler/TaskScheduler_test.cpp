#include "scheduler/SchedulerFixture.h"

#include <cctype>

namespace {

using Velik::TaskPriority;
using VelikTest::ProbeTask;

class TaskSchedulerTest : public VelikTest::SchedulerTest {
  protected:
    // One task per letter, at the priority the letter names in either case
    // ("n" is a second normal task), scheduled in that order.
    std::vector<std::shared_ptr<ProbeTask>> schedule(const std::string& letters, bool again) {
        std::vector<std::shared_ptr<ProbeTask>> tasks;
        for (char c : letters) {
            auto p = static_cast<TaskPriority>(std::string("AHNLS").find(std::toupper(c)));
            tasks.push_back(task(p, std::string(1, c) + std::to_string(tasks.size())));
            tasks.back()->alwaysReschedule = again;
            tasks.back()->scheduleTask();
        }
        return tasks;
    }
};

// Strictly by priority, first in first out within a queue; every run
// requests the next, and the run that finds nothing records idle once.
TEST_F(TaskSchedulerTest, StrictPriorityFifoAndIdleRecordedOnce) {
    auto tasks = schedule("SLNHnA", false);
    runUntilIdle();
    EXPECT_EQ(letters(), "AHNnLS");
    EXPECT_EQ(control->requests, 7);
    EXPECT_FALSE(control->pending || root->schedulerHasRunnableTasks());
    runOnce();
    EXPECT_EQ(historyCount("schedulerIdle testRoot"), 1);
}

TEST_F(TaskSchedulerTest, StarvationRuleSequences) {
    // Every task reschedules itself at once; as many runs as letters expected.
    const std::pair<const char*, std::string> rows[] = {
        {"HN", "HHHHHHHHHNHHHHHHHHHNHHHHHHHHHN"},  // 8n > 64 first holds at n = 9
        {"HHNL", std::string(15, 'H') + "N"},      // 9n > 128 at 15; normal itself is picked
        // 9n > 64 at n = 8; after nine bumped normal runs normal gives way to low.
        {"HNL",
         "HHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHN"
         "HHHHHHHHNHHHHHHHHL"},
        {"AHS", std::string(30, 'A')},  // absolute never gives way
        {"HS", std::string(30, 'H')},   // scavenge is never bumped to
    };
    for (const auto& [tasks, expected] : rows) {
        newRoot();
        log.clear();
        auto queued = schedule(tasks, true);
        runOnce(static_cast<int>(expected.size()));
        EXPECT_EQ(letters(), expected) << tasks;
    }
}

// Freezing a pass and resuming it are exercised through the group's passes.
TEST_F(TaskSchedulerTest, ASecondFreezeOfAPassAsserts) {
    auto a = task(TaskPriority::normal, "a");
    a->scheduleTask();
    auto& queue = root->taskRunQueue(TaskPriority::normal);
    queue.movePersistentToTemporary();
    EXPECT_ASSERT_TEXT(queue.movePersistentToTemporary(),
                       "The temporary run queue should always be empty at this point");
    queue.moveTemporaryToPersistent();
}

// The queue's counters follow its lists whichever way a task enters or
// leaves: queued once however often asked, unscheduled, picked.
TEST_F(TaskSchedulerTest, RunQueueCountersFollowEveryWayInAndOut) {
    auto a = task(TaskPriority::normal, "a");
    auto b = task(TaskPriority::normal, "b");
    auto& queue = root->taskRunQueue(TaskPriority::normal);
    a->scheduleTask();
    a->scheduleTask();
    b->scheduleTask();
    b->unscheduleTask();
    EXPECT_EQ(queue.queuedCount(), 1u);

    a->alwaysReschedule = true;  // queued again inside its own run
    runOnce(3);
    EXPECT_EQ(std::tuple(queue.queuedCount(), queue.pickedCount(), queue.consecutiveRuns()),
              std::tuple(4u, 3u, 3u));

    root->clearStats();  // runs count again from here; the rest stays
    EXPECT_EQ(root->runTaskCount(TaskPriority::normal) * 10 + queue.pickedCount(), 3u);
    a->taskSuspendedIs(true);
    EXPECT_EQ(queue.waiting(), 0);
    a->taskSuspendedIs(false);
    queue.pickedCountIsForTest(queue.queuedCount());  // corrupt: the next pick is one too many
    EXPECT_ASSERT_TEXT(runOnce(),
                       "taskSchedulerUnlinkTask() Priority: normal queuedCount: 4 pickedCount: 5");
    EXPECT_TRUE(a->taskScheduled());  // the failed pick leaves it queued
    a->taskSuspendedIs(true);
    queue.pickedCountIsForTest(queue.queuedCount());
}

TEST_F(TaskSchedulerTest, TaskDroppingItsLastReferenceLivesUntilTheRunEnds) {
    for (bool throws : {false, true}) {
        auto t = task(TaskPriority::normal, "last");
        std::weak_ptr<ProbeTask> watch = t;
        bool aliveInRun = false;
        t->body = [&, throws](ProbeTask& self) {
            t.reset();  // the last outside reference
            aliveInRun = root->currentlyRunningTask() == &self && !watch.expired();
            if (throws) {
                throw std::runtime_error("task failed");
            }
        };
        t->scheduleTask();
        if (throws) {
            EXPECT_THROW(runOnce(), std::runtime_error);
        } else {
            runOnce();
        }
        // Released on every way out; the next run is requested even after an exception.
        EXPECT_TRUE(aliveInRun && watch.expired()) << throws;
        EXPECT_TRUE(!root->currentlyRunningTask() && control->pending) << throws;
    }
}

}  // namespace
