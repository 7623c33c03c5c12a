#include "Velik/TaskSchedulerQueueStats.h"

#include "Velik/Assert.h"

namespace Velik {

TaskSchedulerPriorityStats& TaskSchedulerPriorityStats::operator+=(
    const TaskSchedulerPriorityStats& other) {
    VELIK_CLASS_ASSERT(priority == other.priority, "{} != {}", priority, other.priority);
    runnableTasks += other.runnableTasks;
    idleTasks += other.idleTasks;
    completedTasks += other.completedTasks;
    totalRunCount += other.totalRunCount;
    return *this;
}

TaskSchedulerQueueStats& TaskSchedulerQueueStats::operator+=(const TaskSchedulerQueueStats& other) {
    for (const auto& [priority, stats] : other) {
        auto [entry, inserted] = try_emplace(priority, stats);
        if (!inserted) {
            entry->second += stats;
        }
    }
    return *this;
}

}  // namespace Velik
