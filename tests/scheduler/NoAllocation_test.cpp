// Scheduling, picking, running and recording history allocate nothing once
// the tasks exist: counted by the program's counting allocator.
#include "scheduler/SchedulerFixture.h"
#include "support/CountingAllocator.h"

namespace {

using Velik::TaskPriority;
using VelikTest::ProbeTask;

class NoAllocationTest : public VelikTest::SchedulerTest {};

TEST_F(NoAllocationTest, SchedulingPickingRunningAndHistoryAllocateNothing) {
    std::vector<std::shared_ptr<ProbeTask>> tasks;
    int executed = 0;
    for (int p = 0; p < 5; ++p) {
        // No run log: its growth would allocate.
        tasks.push_back(std::make_shared<ProbeTask>(root.get(), static_cast<TaskPriority>(p),
                                                    "t" + std::to_string(p)));
        tasks.back()->body = [&executed](ProbeTask& self) {
            ++executed;
            if (!self.taskShouldYield()) {
                self.scheduleTask();
            }
            self.taskWorkCountInc(3);
            self.taskWorkPendingIs(1);
        };
        tasks.back()->scheduleTask();
    }
    ProbeTask& absolute = *tasks.front();
    // Warm up: fill the history ring and take the one-time costs (tick
    // calibration) before counting.
    runOnce(200);
    absolute.unscheduleTask();

    VelikTest::AllocationLog log;
    for (int i = 0; i < 1000; ++i) {
        runOnce();
        if (i % 100 == 0) {
            absolute.scheduleTask();
            absolute.unscheduleTask();
            absolute.taskSuspendedIs(true);
            absolute.scheduleTask();
            absolute.taskSuspendedIs(false);
            absolute.unscheduleTask();
        }
    }
    root->suspendedIs(true);
    runOnce();
    root->suspendedIs(false);
    log.stop();

    EXPECT_EQ(log.count(), 0u);
    EXPECT_GT(executed, 1000);
}

class Plain : public Velik::Task {
  public:
    using Task::Task;
    void taskExecute() override {}
};

// A plain task whose name is new (one per connection, say) takes at most 320
// bytes in all: one block for the object and its counts, one interned name,
// and its share of the name cache's growth. A known name is interned once.
TEST_F(NoAllocationTest, APlainTaskWithANewNameTakesAtMost320Bytes) {
    constexpr int count = 1000;
    std::vector<std::shared_ptr<Plain>> tasks;
    tasks.reserve(count);
    std::vector<std::string> names(count);
    std::generate(names.begin(), names.end(),
                  [i = 0]() mutable { return fmt::format("c{}", i++); });
    const std::size_t namesBefore = Velik::ConstStringCache::forThisThread().size();
    VelikTest::AllocationLog log;
    for (const std::string& name : names) {
        tasks.push_back(std::make_shared<Plain>(root.get(), TaskPriority::normal, name));
    }
    log.stop();
    EXPECT_LE(log.bytes(), 320u * count);
    // Block and name each (so the log does count), and a few rehashes: fewer
    // wraps round to a huge difference.
    EXPECT_LE(log.count() - 2u * count, 20u);
    tasks.push_back(std::make_shared<Plain>(root.get(), TaskPriority::normal, names[0]));
    EXPECT_EQ(Velik::ConstStringCache::forThisThread().size(), namesBefore + count);
}

}  // namespace
