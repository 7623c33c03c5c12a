// One run queue of a scheduler: the tasks of one priority waiting to run,
// and the counters the picking rule and the statistics read.
#pragma once

#include <Velik/IntrusiveLinkedListBase.h>
#include <Velik/Task.h>

#include <cstdint>

namespace Velik {

class TaskRunQueue {
  public:
    static constexpr const char* traceClassName = "TaskRunQueue";
    using TaskList = List<TaskImpl, &TaskImpl::taskRunQueueLink_>;

    TaskRunQueue() = default;
    TaskRunQueue(const TaskRunQueue&) = delete;
    TaskRunQueue& operator=(const TaskRunQueue&) = delete;

    // Where `scheduleTask` appends.
    TaskList persistent;
    // A frozen batch while a task group runs one pass; otherwise empty.
    TaskList temporary;
    // The list tasks are picked from: `persistent` except during a pass.
    TaskList* active = &persistent;

    // Tasks picked from this priority in a row.
    std::uint32_t consecutiveRuns = 0;
    // Raised when a task is queued, lowered when a queued task is unscheduled.
    std::uint64_t queuedCount = 0;
    // Raised when a task is picked to run.
    std::uint64_t pickedCount = 0;
    // The baseline from which picks are counted as runs.
    std::uint64_t pickedCountBase = 0;

    // Tasks waiting: `queuedCount` - `pickedCount` (may be read as negative
    // only when the counters are corrupt).
    std::int64_t waiting() const { return static_cast<std::int64_t>(queuedCount - pickedCount); }

    // Freezes the queued tasks into `temporary` for one pass; tasks scheduled
    // meanwhile wait in `persistent` for the next pass. `temporary` must be
    // empty (an assertion exception otherwise).
    void movePersistentToTemporary();
    // Ends a pass: the tasks the pass did not reach go back to the front of
    // `persistent`, ahead of those scheduled during the pass.
    void moveTemporaryToPersistent();

  private:
    void checkTemporaryEmpty() const;
};

}  // namespace Velik
