#include <Velik/TaskGroup.h>

#include "scheduler/SchedulerFixture.h"

namespace {

using Velik::TaskGroupIs;
using Velik::TaskPriority;
using VelikTest::ProbeTask;
constexpr TaskPriority normal = TaskPriority::normal;

class TaskGroupTest : public VelikTest::SchedulerTest {
  protected:
    // A normal task of `s`, scheduled; `again`: it always schedules itself again.
    std::shared_ptr<ProbeTask> member(Velik::TaskScheduler* s, const char* name, bool again) {
        auto t = std::make_shared<ProbeTask>(s, normal, name, &log);
        t->alwaysReschedule = again;
        t->scheduleTask();
        return t;
    }
};

TEST_F(TaskGroupTest, EachParentRunIsOnePassOrRunsUntilItsQuantum) {
    // The parent yields at every ratio-th check; the work count includes the
    // group run that finds a pass done.
    struct Row {
        bool multipleRuns;
        std::uint8_t parentYieldRatio;
        std::string alwaysRescheduling;
        std::vector<std::string> perParentRun;
        std::uint64_t workCount;
        std::uint32_t pending;
    } const rows[] = {
        {false, 50, "abc", {"abc", "abc"}, 8, 3},  // one pass: each task once per run
        {true, 7, "abc", {"abcabca"}, 7, 3},       // on until the parent yields
        {false, 2, "a", {"ab", "ca"}, 4, 1},  // cut short: c first, then a rescheduled meanwhile
        {false, 50, "", {"abc"}, 4, 0},       // all idle: the parent leaves the queue
    };
    for (const Row& row : rows) {
        auto g = TaskGroupIs("g", normal, false, root);
        g->tasksPermittedMultipleRunsIs(row.multipleRuns);
        g->parentTask()->taskTestYieldRatioIs(row.parentYieldRatio);
        std::vector<std::shared_ptr<ProbeTask>> tasks;
        for (const char* name : {"a", "b", "c"}) {
            tasks.push_back(
                member(g.get(), name, row.alwaysRescheduling.find(*name) != std::string::npos));
        }
        for (const std::string& expected : row.perParentRun) {
            log.clear();
            runOnce();
            EXPECT_EQ(letters(), expected) << row.alwaysRescheduling << row.multipleRuns;
        }
        // Queued, and busy, exactly while the group has work.
        const auto& parent = *g->parentTask();
        EXPECT_EQ(
            std::tuple(parent.workCountTotal(), parent.workPending(), g->parentTaskScheduled(),
                       parent.taskBusy() && g->schedulerHasRunnableTasks()),
            std::tuple(row.workCount, row.pending, row.pending != 0, row.pending != 0))
            << row.perParentRun[0];
        tasks[0]->scheduleTask();
        EXPECT_TRUE(g->parentTaskScheduled() && control->pending);
    }
}

TEST_F(TaskGroupTest, NestedGroupsShareTheQuantumAndRefuseOtherPriorities) {
    auto outer = TaskGroupIs("outer", normal, true, root);
    outer->defaultTaskQuantumIs(std::chrono::milliseconds(5));
    auto inner = TaskGroupIs("inner", normal, false, outer);
    EXPECT_EQ(inner->taskGroupQuantum(), std::chrono::milliseconds(5));
    EXPECT_ASSERT_TEXT(TaskGroupIs("refused", TaskPriority::low, false, outer),
                       "taskPriority( low ) != taskGroupPriority( normal )");
    EXPECT_EQ(root->taskGroupCount(), 2u);  // the refused group left no trace
    EXPECT_ASSERT_TEXT(std::make_shared<ProbeTask>(outer.get(), TaskPriority::low, "x"),
                       "taskPriority( low ) != taskGroupPriority( normal )");

    auto x = member(inner.get(), "x", false);
    runUntilIdle();
    EXPECT_EQ(letters(), "x");
    EXPECT_FALSE(inner->parentTaskScheduled() || outer->parentTaskScheduled());
}

TEST_F(TaskGroupTest, TheGroupLivesWhileItsTasksDoAndALateParentRunDoesNothing) {
    auto g = TaskGroupIs("g", normal, false, root);
    std::weak_ptr<Velik::TaskGroup> watch = g;
    auto t = member(g.get(), "t", false);
    g.reset();
    runUntilIdle();
    EXPECT_EQ(letters(), "t");
    t->scheduleTask();
    auto parent = watch.lock()->parentTask();  // held beyond the group
    t.reset();                                 // the last task goes, and the group with it
    EXPECT_TRUE(watch.expired() && parent->taskScheduled());
    EXPECT_EQ(root->taskGroupCount(), 0u);
    runOnce();
    EXPECT_EQ(letters(), "t");
    EXPECT_EQ(parent->taskRunCount(), 2u);
    parent.reset();  // leaves the root
    EXPECT_TRUE(root->tasks().isEmpty());
}

}  // namespace
