// The task scheduler: the registered tasks of one group of work on one
// thread, a run queue per priority, and one task run per scheduler run.
//
// A scheduler does not wait for events. When it has runnable tasks it asks,
// through `requestSchedulerRun()`, to be run soon: the thread's
// `TaskSchedulerRoot` answers with a deferred callback of the event platform,
// a task group by scheduling its parent task in the scheduler above. Each
// `handleSchedulerRun()` picks one task, strictly by priority except for the
// starvation rule (`attemptLowerPriorityBump`), runs it, and requests the
// next run; the scheduler goes idle when a run finds every queue empty.
//
// Schedulers are owned by shared pointers (each task holds one) and belong to
// the thread of their root. Scheduling, picking and running allocate nothing.
#pragma once

#include <Velik/ConstStringCache.h>
#include <Velik/IntrusiveBookmarkLinkedList.h>
#include <Velik/Task.h>
#include <Velik/TaskPriority.h>
#include <Velik/TaskRunQueue.h>
#include <Velik/TaskTime.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Velik {

class TaskSchedulerRoot;
class TaskSchedulerHistory;
// The statistics and reports below are declared here and defined with the
// statistics and the reports; callers include TaskStat.h,
// TaskSchedulerQueueStats.h, TaskSchedulerSnapshot.h,
// TaskSchedulerPrintContext.h or SnapshotRenderJson.h for the full types.
class TaskStat;
class TaskSchedulerQueueStats;
class TaskSchedulerPrintContext;
class TaskSchedulerSnapshot;
class SnapshotRenderJsonTask;

class TaskScheduler : public std::enable_shared_from_this<TaskScheduler> {
  public:
    static constexpr const char* traceClassName = "TaskScheduler";
    using TaskList = BookmarkList<TaskImpl, &TaskImpl::taskRegisteredLink_>;
    static constexpr TaskTimeDuration defaultTaskQuantumInitial = std::chrono::milliseconds(20);

    // Empty lists and queues, a default quantum of 20 ms, not runnable. The
    // derived class registers itself with `root` (the root points at itself).
    TaskScheduler(std::string_view name, TaskSchedulerRoot* root,
                  std::shared_ptr<TaskSchedulerHistory> history);
    TaskScheduler(const TaskScheduler&) = delete;
    TaskScheduler& operator=(const TaskScheduler&) = delete;

    // Whether a sliced statistics reset (`resetStats`) is under way. Defined
    // here, so that the first out-of-line virtual, which places the class's
    // virtual table, is one of the core's own (`taskRegister`).
    virtual bool resetStatsInProgress() const { return resetStatsTask_ != nullptr; }
    // Asks to be run soon (once; repeated requests may coalesce).
    virtual void requestSchedulerRun() = 0;
    // Called when the set of tasks with forced test yield turns empty or
    // non-empty.
    virtual void handleTaskForceYieldInTest() = 0;
    // Adds a newly constructed task (from its `handleInitialized`).
    virtual void taskRegister(TaskImpl* task);
    // All tasks must have been unregistered.
    virtual ~TaskScheduler();

    // Removes a task that is being destroyed; it must not be queued.
    void taskUnregister(TaskImpl* task);

    // --- Running ---

    // One scheduler run: picks one task and runs it, then requests the next
    // run; with nothing to pick the scheduler turns idle. An exception from
    // the task passes through.
    void handleSchedulerRun();
    // The same run, started from the steady reading `now` taken just before
    // by the caller (the root's callback hands on the reading its event loop
    // pass took), which `checkSchedulerLatency` then uses instead of a clock
    // read of its own.
    void handleSchedulerRunAt(TaskTimePoint now);
    // The next task to run, from priority `from` down, unlinked from its
    // queue; null when every queue from `from` on is empty.
    TaskImpl* pickOneTask(TaskTimePoint now, TaskPriority from);
    // The starvation guard: whether priority `p`, picked `n` times in a row,
    // gives way to the waiting lower-priority work this time.
    bool attemptLowerPriorityBump(TaskPriority p, std::uint32_t n) const;

    bool schedulerHasRunnableTasks() const { return schedulerHasRunnableTasks_; }
    // Turning runnable requests a run; turning idle is recorded.
    void schedulerHasRunnableTasksIs(bool runnable, TaskTimePoint now);
    void requestSchedulerRunAndRecord(TaskTimePoint now);
    // Measures the delay from the last run request to now.
    void checkSchedulerLatency() { checkSchedulerLatency(taskSteadyNow()); }
    // The same with now read already.
    void checkSchedulerLatency(TaskTimePoint now);

    // The queue moves of a task group pass, over all five queues.
    void taskRunQueuesMovePersistentToTemporary();
    void taskRunQueuesMoveTemporaryToPersistent();

    // Keeps the set of tasks with forced test yield; see
    // `handleTaskForceYieldInTest`.
    void taskForceYieldInTestNotify(TaskImpl* task, bool on);
    std::size_t taskForceYieldInTestCount() const { return forceYieldTasks_.size(); }

    // The task currently in `taskDoRun`, if any.
    TaskImpl* currentlyRunningTask() const {
        return static_cast<TaskImpl*>(currentlyRunning_.get());
    }

    // --- Counts ---

    std::uint32_t tasksPerPriority(TaskPriority priority) const;
    void tasksPerPriorityInc(TaskPriority priority);
    void tasksPerPriorityDec(TaskPriority priority);
    std::uint32_t completedTasksPerPriority(TaskPriority priority) const;
    void completedTasksPerPriorityInc(TaskPriority priority);
    void completedTasksPerPriorityDec(TaskPriority priority);
    // Tasks waiting on the queue of `priority` (or on all queues).
    std::uint32_t runnableTaskCount(TaskPriority priority) const;
    std::uint32_t runnableTaskCount() const;
    // Tasks picked from the queue of `priority` since the counters' baseline.
    std::uint64_t runTaskCount(TaskPriority priority) const;

    // --- Attributes ---

    const ConstStringRef& schedulerName() const { return schedulerName_; }
    TaskSchedulerRoot* root() const { return root_; }
    const std::shared_ptr<TaskSchedulerHistory>& history() const { return history_; }
    const TaskList& tasks() const { return tasks_; }
    TaskRunQueue& taskRunQueue(TaskPriority priority);
    const TaskRunQueue& taskRunQueue(TaskPriority priority) const;
    // The queue `task` waits on, without the range check: a task's priority
    // was checked when it registered. For the task's own queueing.
    TaskRunQueue& taskRunQueueOf(const TaskImpl& task) {
        return taskRunQueues_[indexOf(task.taskPriority())];
    }

    TaskTimeDuration defaultTaskQuantum() const { return defaultTaskQuantum_; }
    // The quantum new tasks start with. Asserts with "Quantum: " unless
    // positive, as a task's own quantum; no upper limit.
    void defaultTaskQuantumIs(TaskTimeDuration quantum);
    TaskTimeDuration maxSchedulerSlip() const { return maxSchedulerSlip_; }
    TaskTimePoint lastRunRequestTime() const { return lastRunRequestTime_; }
    void lastRunRequestTimeIs(TaskTimePoint time) { lastRunRequestTime_ = time; }
    TaskTimePoint currentRunTime() const { return currentRunTime_; }
    // Framework time (seconds) at which the current run began, for tasks that
    // yield on the framework clock.
    double frameworkRunStartTime() const { return frameworkRunStartTime_; }
    void frameworkRunStartTimeIs(double time) { frameworkRunStartTime_ = time; }

    // The registered task named `name` (first in list order), or null.
    TaskImpl* taskForTest(std::string_view name) const;

    // Records a scheduler event in the history.
    void recordHistory(TaskTimePoint now, TaskSchedulerEventType type) const;

    // --- Statistics ---

    // The task that resets statistics a slice at a time (see `resetStats`).
    class ResetStatsTask;
    // Finished tasks' records, summed per stats name.
    using CompletedTaskStats = std::unordered_map<ConstStringRef, TaskStat>;

    // One entry per priority, 0 to 4: runnable, idle (registered but not
    // runnable), completed tasks and runs.
    TaskSchedulerQueueStats queueStats() const;
    // Appends a record per registered task, in list order (unsorted). Unless
    // `includeNoRuns`, tasks that never ran are left out; returns how many.
    std::uint32_t getTaskStats(std::vector<TaskStat>* out, bool includeNoRuns) const;
    // Appends the completed records (unsorted), likewise filtered.
    void getCompletedTaskStats(std::vector<TaskStat>* out, bool includeNoRuns) const;
    // Empty until a record is kept.
    const CompletedTaskStats& completedTaskStats() const;

    // Adds `stat` into the completed record of `name`, creating it if needed.
    void completedTaskStatsInc(const ConstStringRef& name, TaskStat stat);
    // Folds a task being deleted into the completed records, if it is marked
    // with `includeInCompletedTaskIs(true)`, and moves it from the registered
    // to the completed count of its priority.
    void updateCompletedTaskStats(TaskImpl* task);

    // Resets the run counters of the queues, the maximum slip, and forgets
    // the completed records.
    void clearStatsCommon();
    // `clearStatsCommon` and a reset of every task, all at once. Cancels a
    // sliced reset under way.
    void clearStats();
    // The same spread over runs of a `ResetStatsTask` ("<scheduler>;ResetStats"),
    // each resetting tasks until its quantum is used up, so that a scheduler
    // with many tasks does not stall. A reset under way starts over.
    void resetStats();
    // One slice of the reset: the run of the `ResetStatsTask`.
    void handleResetStatsTaskRun();
    // The reset task while a reset is under way, else null.
    TaskImpl* resetStatsTaskForTest() const;

    // --- Run histograms (see RunHistograms.h) ---

    // Whether the scheduler records its runs in histograms (on from the
    // start): turning them off frees them, turning them on starts empty.
    void runHistogramsIs(bool on);
    // Null while off.
    const RunHistograms* runHistograms() const { return runHistograms_.get(); }
    // Records how late `task` starts the run its timer's expiry caused, here
    // and in the task's own histograms.
    void timerLatenessRecord(TaskImpl& task, TaskTimeDuration lateness);

    // --- Snapshots and JSON (see TaskSchedulerSnapshot.h for the shape) ---

    // This scheduler's statistics and, through its task groups, those of the
    // schedulers nested in it. `includeNoRuns`: list tasks that never ran;
    // `includeCompleted`: the completed records; `includeHistory`: a copy of
    // the root's history (on the root's snapshot only).
    std::shared_ptr<TaskSchedulerSnapshot> snapshot(bool includeNoRuns, bool includeCompleted,
                                                    bool includeHistory) const;
    // A print context on `stream`, with the document opened.
    static std::unique_ptr<TaskSchedulerPrintContext> PrintContextIs(std::ostream& stream);
    // The same on a blocking descriptor (see `FdToStream`), closed with the
    // context if `closeFd`.
    static std::unique_ptr<TaskSchedulerPrintContext> PrintContextIs(int fd, bool closeFd);
    // The whole document for this scheduler's snapshot, synchronously; the
    // bools as for `snapshot`.
    void statsRenderJson(std::ostream& stream, bool includeNoRuns, bool includeCompleted,
                         bool includeHistory) const;
    std::string statsRenderJsonToString(bool includeNoRuns, bool includeCompleted,
                                        bool includeHistory) const;
    // The same to a blocking descriptor, which stays open. Blocks the thread
    // until the reader has taken everything: for tests and debugging.
    void statsRenderJsonToBlockingFdForTest(int fd, bool includeNoRuns, bool includeCompleted,
                                            bool includeHistory) const;
    // Writes the document of `snapshot` (or of `snapshots`, one member each)
    // to `fd` in the background, by tasks of this scheduler (see
    // SnapshotRenderJson.h), then calls `done` if given. Switches `fd` to
    // non-blocking mode. The returned task need not be kept.
    std::shared_ptr<SnapshotRenderJsonTask> snapshotRenderJsonAsync(
        int fd, std::shared_ptr<const TaskSchedulerSnapshot> snapshot,
        std::function<void()> done = {});
    std::shared_ptr<SnapshotRenderJsonTask> snapshotRenderJsonAsync(
        int fd, std::vector<std::shared_ptr<const TaskSchedulerSnapshot>> snapshots,
        std::function<void()> done = {});

  private:
    // Made and freed where `TaskStat` is complete; the deleter travels with
    // the table, so this file needs no more than the declaration.
    using CompletedTaskStatsOwner =
        std::unique_ptr<CompletedTaskStats, void (*)(CompletedTaskStats*)>;

    static std::size_t indexOf(TaskPriority priority);
    // One run's figures, here and in the task's own histograms.
    void runHistogramsRecord(TaskImpl& task, TaskTimeDuration latency, TaskTimeDuration elapsed);
    void checkPriority(TaskPriority priority, const char* function) const;

    ConstStringRef schedulerName_;
    TaskSchedulerRoot* root_;
    std::shared_ptr<TaskSchedulerHistory> history_;
    TaskList tasks_;
    std::array<TaskRunQueue, taskPriorityCount> taskRunQueues_;
    TaskTimePoint lastRunRequestTime_{};
    TaskTimePoint currentRunTime_{};
    TaskTimeDuration defaultTaskQuantum_ = defaultTaskQuantumInitial;
    TaskTimeDuration maxSchedulerSlip_{0};
    double frameworkRunStartTime_ = 0.0;
    // Indexed by priority; fixed arrays, so counting never allocates.
    std::array<std::uint32_t, taskPriorityCount> tasksPerPriority_{};
    std::array<std::uint32_t, taskPriorityCount> completedTasksPerPriority_{};
    bool schedulerHasRunnableTasks_ = false;
    std::shared_ptr<_TaskBase> currentlyRunning_;
    std::unordered_set<TaskImpl*> forceYieldTasks_;
    // Null until the first record is kept.
    CompletedTaskStatsOwner completedTaskStats_{nullptr, nullptr};
    // Where the sliced reset resumes; linked only between slices.
    TaskList::Node resetStatsBookmark_{TaskList::Node::bookmark};
    // Held while a sliced reset is under way (the task holds this scheduler
    // in turn: the cycle ends when the reset does).
    std::shared_ptr<ResetStatsTask> resetStatsTask_;
    std::unique_ptr<RunHistograms, RunHistogramsDelete> runHistograms_;
};

// Prints the scheduler's name.
std::ostream& operator<<(std::ostream& stream, const TaskScheduler* scheduler);

}  // namespace Velik
