// Per-priority summaries of a scheduler's run queues.
//
//   Velik::TaskSchedulerQueueStats all = root->queueStats();
//   all += group->queueStats();                 // merged across schedulers
//   for (const auto& [priority, s] : all) {
//       fmt::print("{} {} runnable of {}\n", priority, s.runnableTasks,
//                  s.runnableTasks + s.idleTasks);
//   }
#pragma once

#include <Velik/TaskPriority.h>

#include <cstdint>
#include <map>

namespace Velik {

struct TaskSchedulerPriorityStats {
    static constexpr const char* traceClassName = "TaskSchedulerPriorityStats";

    TaskPriority priority = TaskPriority::absolute;
    std::uint32_t runnableTasks = 0;   // waiting on the run queue
    std::uint32_t idleTasks = 0;       // registered but not waiting
    std::uint32_t completedTasks = 0;  // finished tasks kept in completed statistics
    std::uint64_t totalRunCount = 0;   // runs picked from the queue

    // Adds the four counts of `other`, which must be of the same priority
    // (asserts "<this> != <other>").
    TaskSchedulerPriorityStats& operator+=(const TaskSchedulerPriorityStats& other);

    friend bool operator==(const TaskSchedulerPriorityStats&,
                           const TaskSchedulerPriorityStats&) = default;
};

// Ascending priority.
class TaskSchedulerQueueStats : public std::map<TaskPriority, TaskSchedulerPriorityStats> {
  public:
    // Adds each priority of `other` into the entry of this one, inserting a
    // copy where there is none.
    TaskSchedulerQueueStats& operator+=(const TaskSchedulerQueueStats& other);
};

}  // namespace Velik
