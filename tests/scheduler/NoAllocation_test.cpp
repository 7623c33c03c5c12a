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

}  // namespace
