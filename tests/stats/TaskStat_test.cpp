// Task statistics: status strings, merging finished tasks into completed
// records, queue summaries, and the reset at once and in slices.
#include <Velik/TaskSchedulerQueueStats.h>
#include <Velik/TaskStat.h>

#include "scheduler/SchedulerFixture.h"

namespace {

using namespace std::chrono_literals;
using Velik::TaskMaybeU32;
using Velik::TaskPriority;
using Velik::TaskStat;
using Velik::TaskStatus;

TaskStat statOf(const std::string& name, TaskPriority p, TaskStatus status,
                TaskMaybeU32 workMark = {}) {
    auto ref = Velik::ConstStringCache::forThisThread().intern(name);
    return TaskStat(ref, Velik::TaskKey(), p, 3, 30ns, 5, 2.5f, workMark, 4, TaskMaybeU32(9), 1, 2,
                    20ns, 7ns, 8ns, status);
}

TEST(TaskStatTest, StatusStringFollowsThePrecedenceOfTheBits) {
    const auto n = TaskPriority::normal;
    EXPECT_EQ(statOf("a", n, TaskStatus(TaskStatus::taskOnRunQueueBit)).taskStatusString(), " N");
    // Running beats suspended beats timer; an armed timer is upper case.
    EXPECT_EQ(statOf("a", TaskPriority::high, TaskStatus(0x0F)).taskStatusString(), "*H");
    EXPECT_EQ(statOf("a", n, TaskStatus(0x13)).taskStatusString(), "Sn");
    EXPECT_EQ(statOf("a", TaskPriority::low, TaskStatus(0x03)).taskStatusString(), "Tl");
    EXPECT_EQ(statOf("a", TaskPriority::scavenge, TaskStatus(0x01)).taskStatusString(), "ts");
}

TEST(TaskStatTest, MergeSumsCountsKeepsMarksAndTakesTheLatest) {
    TaskStat sum = statOf("m", TaskPriority::low, TaskStatus(0));
    TaskStat later =
        statOf("m", TaskPriority::low, TaskStatus(TaskStatus::taskOnRunQueueBit), TaskMaybeU32(7));
    later.taskLastSchedulingLatencyIs(1ns);
    later.taskRunTimeHighWaterMarkIs(50ns);
    sum += later;
    EXPECT_EQ(sum.taskWorkCountHighWaterMark(), TaskMaybeU32(7));  // none, then 7
    EXPECT_EQ(std::tuple(sum.taskRunCount(), sum.taskTotalRunTime(),
                         sum.taskQuantumViolation500() + sum.taskQuantumViolation200(),
                         sum.taskLastSchedulingLatency(), sum.taskStatusString()),
              std::tuple(6u, 60ns, 6u, 1ns, " L"));

    sum += statOf("m", TaskPriority::low, TaskStatus(0));  // 7, then none
    EXPECT_EQ(sum.taskWorkCountHighWaterMark(), TaskMaybeU32(7));
    EXPECT_EQ(sum.taskRunTimeHighWaterMark(), 50ns);

    EXPECT_ASSERT_TEXT(sum += statOf("other", TaskPriority::low, TaskStatus(0)), "m != other");
}

class SchedulerStatsTest : public VelikTest::SchedulerTest {
  protected:
    std::vector<TaskStat> completed() const {
        std::vector<TaskStat> out;
        root->getCompletedTaskStats(&out, true);
        return out;
    }
};

TEST_F(SchedulerStatsTest, DeletedTasksAddUpPerStatsName) {
    for (int i = 0; i < 2; ++i) {
        auto t = task(TaskPriority::low, "short" + std::to_string(i));
        t->taskStatsNameIs("short");
        t->scheduleTask();
        runUntilIdle();
    }
    auto quiet = task(TaskPriority::low, "quiet");
    quiet->includeInCompletedTaskIs(false);
    quiet->scheduleTask();
    runUntilIdle();
    quiet.reset();

    const std::vector<TaskStat> done = completed();
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(fmt::format("{} {} {}", done[0].taskName(), done[0].taskCompletedCount(),
                          done[0].taskRunCount()),
              "short 2 2");
    EXPECT_EQ(root->queueStats().at(TaskPriority::low),
              (Velik::TaskSchedulerPriorityStats{TaskPriority::low, 0, 0, 2, 3}));

    auto idle = task(TaskPriority::normal, "idle");
    auto queued = task(TaskPriority::normal, "queued");
    queued->scheduleTask();
    EXPECT_EQ(root->queueStats().at(TaskPriority::normal),
              (Velik::TaskSchedulerPriorityStats{TaskPriority::normal, 1, 1, 0, 0}));

    root->clearStats();
    EXPECT_TRUE(completed().empty());
    EXPECT_EQ(root->queueStats().at(TaskPriority::low).totalRunCount, 0u);
}

TEST_F(SchedulerStatsTest, ResetRunsInSlicesAndResumesAtItsBookmark) {
    std::vector<std::shared_ptr<VelikTest::ProbeTask>> tasks;
    for (int i = 0; i < 6; ++i) {  // listed newest first: t5 ... t0
        tasks.push_back(task(TaskPriority::normal, "t" + std::to_string(i)));
        tasks.back()->taskRunAndRecordFromTest();
    }
    root->taskTestYieldRatioIs(1);  // every question yields
    root->resetStats();
    runOnce();  // itself and t5 (the first task is never asked), then a yield
    EXPECT_EQ(tasks[4]->taskRunCount(), 1u) << "not reached yet";
    // The tasks on both sides of the bookmark go away between slices.
    tasks.erase(tasks.begin() + 4, tasks.end());
    for (int i = 0; i < 10 && root->resetStatsInProgress(); ++i) {
        runOnce();
    }
    EXPECT_FALSE(root->resetStatsInProgress());
    for (auto& t : tasks) {
        EXPECT_EQ(t->taskRunCount(), 0u) << t->taskName();
    }
    EXPECT_TRUE(completed().empty());  // t4 and t5 were folded in, then cleared
}

}  // namespace
