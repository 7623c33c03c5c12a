#include <Velik/TaskScheduler.h>

#include "scheduler/SchedulerFixture.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

using Velik::TaskPriority;
using Velik::TaskTimeDuration;
using VelikTest::advanceNs;
using VelikTest::ProbeTask;

class TaskSchedulerTest : public VelikTest::SchedulerTest {};

TEST_F(TaskSchedulerTest, StrictPriorityOneTaskPerRunFifoWithinAQueue) {
    auto s = task(TaskPriority::scavenge, "S");
    auto l = task(TaskPriority::low, "L");
    auto y = task(TaskPriority::normal, "y");
    auto h = task(TaskPriority::high, "H");
    auto x = task(TaskPriority::normal, "x");
    auto a = task(TaskPriority::absolute, "A");
    for (auto* t : {s.get(), l.get(), y.get(), h.get(), x.get(), a.get()}) {
        t->scheduleTask();
    }
    EXPECT_EQ(control->requests, 1);
    runOnce();
    EXPECT_EQ(letters(), "A");
    runUntilIdle();
    EXPECT_EQ(letters(), "AHyxLS");
    EXPECT_EQ(root->runTaskCount(TaskPriority::normal), 2u);

    // Scavenge tasks take turns one per run; an absolute task cuts in.
    log.clear();
    s->alwaysReschedule = true;
    auto s2 = task(TaskPriority::scavenge, "s");
    s2->alwaysReschedule = true;
    s->scheduleTask();
    s2->scheduleTask();
    runOnce(3);
    a->scheduleTask();
    runOnce(2);
    EXPECT_EQ(letters(), "SsSAs");
}

TEST_F(TaskSchedulerTest, StarvationRuleSequences) {
    // Every task reschedules itself at once; tasks are named after their
    // priority letter and scheduled in the order given.
    struct Row {
        const char* tasks;
        int runs;
        std::string expected;
    };
    const Row rows[] = {
        {"HN", 30, "HHHHHHHHHNHHHHHHHHHNHHHHHHHHHN"},  // 8n > 64 first holds at n = 9
        {"LN", 20, "NNNNNNNNNLNNNNNNNNNL"},            // 1n > 8 likewise
        {"HHN", 18, std::string(17, 'H') + "N"},       // two waiting high: 8n > 128 at 17
        {"HHNL", 16, std::string(15, 'H') + "N"},      // 9n > 128 at 15; normal itself is picked
        // 9n > 64 at n = 8; after nine bumped normal runs normal gives way to low.
        {"HNL", 90,
         "HHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHN"
         "HHHHHHHHNHHHHHHHHL"},
        {"AHS", 30, std::string(30, 'A')},  // absolute never gives way
        {"HS", 30, std::string(30, 'H')},   // scavenge is never bumped to
    };
    for (const Row& row : rows) {
        newRoot();
        log.clear();
        std::vector<std::shared_ptr<ProbeTask>> tasks;
        for (const char* c = row.tasks; *c; ++c) {
            auto p = static_cast<TaskPriority>(std::string("AHNLS").find(*c));
            tasks.push_back(task(p, std::string(1, *c) + std::to_string(tasks.size())));
            tasks.back()->alwaysReschedule = true;
            tasks.back()->scheduleTask();
        }
        runOnce(row.runs);
        EXPECT_EQ(letters(), row.expected) << row.tasks;
    }
}

TEST_F(TaskSchedulerTest, EveryRunRequestsTheNextAndIdleIsRecordedOnce) {
    auto t = task(TaskPriority::normal, "t");
    t->scheduleTask();
    advanceNs(5'000);
    runOnce();
    EXPECT_EQ(control->requests, 2);  // a run always requests the next
    EXPECT_EQ(t->lastSchedulingLatency(), TaskTimeDuration(5'000));
    EXPECT_EQ(root->maxSchedulerSlip(), TaskTimeDuration(5'000));
    t->scheduleTask();
    advanceNs(1'000);
    runOnce();
    EXPECT_EQ(t->lastSchedulingLatency(), TaskTimeDuration(1'000));
    EXPECT_EQ(t->schedulingLatencyHighWaterMark(), TaskTimeDuration(5'000));
    EXPECT_TRUE(control->pending);
    runOnce();
    EXPECT_FALSE(control->pending);
    EXPECT_FALSE(root->schedulerHasRunnableTasks());
    EXPECT_EQ(historyLines().front(), "schedulerIdle testRoot");
    const std::size_t events = root->history()->size();
    runOnce();
    EXPECT_EQ(root->history()->size(), events);
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
    EXPECT_EQ(letters(), "a");
    root->taskRunQueuesMoveTemporaryToPersistent();  // pass cut short after a
    EXPECT_EQ(queue.active, &queue.persistent);
    runUntilIdle();
    EXPECT_EQ(letters(), "abc");

    a->scheduleTask();
    queue.temporary.pushBack(*b);  // corrupt: temporary not empty
    EXPECT_ASSERT_TEXT(queue.movePersistentToTemporary(),
                       "The temporary run queue should always be empty at this point");
    queue.temporary.remove(*b);
}

TEST_F(TaskSchedulerTest, ExceptionFromTheTaskPassesThrough) {
    auto t = task(TaskPriority::normal, "thrower");
    t->body = [](ProbeTask&) { throw std::runtime_error("task failed"); };
    t->scheduleTask();
    EXPECT_THROW(runOnce(), std::runtime_error);
    EXPECT_EQ(root->currentlyRunningTask(), nullptr);
    EXPECT_TRUE(t->taskCurrentlyRunning());  // left set, as documented
    EXPECT_TRUE(root->schedulerHasRunnableTasks());
    // The next run is still requested, so work queued meanwhile is not stranded.
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

}  // namespace
