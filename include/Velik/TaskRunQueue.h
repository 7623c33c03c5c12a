// One run queue of a scheduler: the tasks of one priority waiting to run,
// and the counters the picking rule and the statistics read.
//
// The queue is the only owner of its counters: a task enters it by `link`
// (queued), leaves it by `unlink` (unscheduled) or `unlinkPicked` (picked to
// run), and each of these keeps the counts in step with the lists, so the
// number waiting is always `queuedCount() - pickedCount()`.
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

    // --- Entering and leaving ---

    // Queues `task` at the tail of `persistent` (a frozen pass does not see
    // it) and counts it. The task must not be on any run queue (the list
    // asserts).
    void link(TaskImpl& task) {
        persistent_.pushBack(task);
        ++queuedCount_;
    }
    // Takes a queued `task` back without running it: it no longer counts as
    // queued.
    void unlink(TaskImpl& task) {
        TaskList::remove(task);
        --queuedCount_;
    }
    // The task the next pick takes from this queue (bookmarks skipped), or
    // null.
    TaskImpl* front() const { return active_->front(); }
    // Takes `task`, the `front()`, off the queue to run it: one more pick,
    // and one more in a row. Asserts (in `taskSchedulerUnlinkTask`) when the
    // counters say more were picked than queued.
    void unlinkPicked(TaskImpl& task) {
        ++consecutiveRuns_;
        ++pickedCount_;
        if (waiting() < 0) [[unlikely]] {
            pickedBeyondQueued(task);
        }
        TaskList::remove(task);
    }

    // --- A task group's pass ---

    // Freezes the queued tasks into `temporary` for one pass; tasks scheduled
    // meanwhile wait in `persistent` for the next pass. `temporary` must be
    // empty (an assertion exception otherwise).
    void movePersistentToTemporary();
    // Ends a pass: the tasks the pass did not reach go back to the front of
    // `persistent`, ahead of those scheduled during the pass.
    void moveTemporaryToPersistent();
    // Whether a pass is under way (tasks are picked from `temporary`).
    bool passFrozen() const { return active_ == &temporary_; }
    const TaskList& persistent() const { return persistent_; }
    const TaskList& temporary() const { return temporary_; }

    // --- Counters ---

    // Tasks picked from this priority in a row; the starvation rule reads it.
    std::uint32_t consecutiveRuns() const { return consecutiveRuns_; }
    // Starts the row again: the queue gave way, or had nothing to give.
    void consecutiveRunsReset() { consecutiveRuns_ = 0; }
    // Raised by `link`, lowered by `unlink`.
    std::uint64_t queuedCount() const { return queuedCount_; }
    // Raised by `unlinkPicked`.
    std::uint64_t pickedCount() const { return pickedCount_; }
    // The baseline from which picks are counted as runs.
    std::uint64_t pickedCountBase() const { return pickedCountBase_; }
    // Picks since the baseline.
    std::uint64_t runCount() const { return pickedCount_ - pickedCountBase_; }
    // Moves the baseline to now: `runCount()` starts again from 0.
    void runCountRestart() { pickedCountBase_ = pickedCount_; }
    // Tasks waiting: `queuedCount` - `pickedCount` (may be read as negative
    // only when the counters are corrupt).
    std::int64_t waiting() const { return static_cast<std::int64_t>(queuedCount_ - pickedCount_); }

    // Overwrites the pick count, to corrupt the counters in tests of the
    // checks that guard them.
    void pickedCountIsForTest(std::uint64_t count) { pickedCount_ = count; }

  private:
    void checkTemporaryEmpty() const;
    [[noreturn, gnu::cold]] void pickedBeyondQueued(const TaskImpl& task) const;

    // Where `link` appends.
    TaskList persistent_;
    // A frozen batch while a task group runs one pass; otherwise empty.
    TaskList temporary_;
    // The list tasks are picked from: `persistent_` except during a pass.
    TaskList* active_ = &persistent_;
    std::uint32_t consecutiveRuns_ = 0;
    std::uint64_t queuedCount_ = 0;
    std::uint64_t pickedCount_ = 0;
    std::uint64_t pickedCountBase_ = 0;
};

}  // namespace Velik
