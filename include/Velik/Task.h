// Tasks: the units of cooperative work of a thread's scheduler.
//
// A task never runs by itself. It asks for one run with `scheduleTask()`,
// waits on its scheduler's run queue for its priority, and when picked its
// `taskExecute()` is called once. A task with a lot of work does a slice of
// it, and when `taskShouldYield()` says its quantum is used up, schedules
// itself again and returns:
//
//   class Compactor : public Velik::Task {
//     public:
//       Compactor(Velik::TaskScheduler* s) : Task(s, Velik::TaskPriority::low, "compactor") {}
//       void taskExecute() override {
//           while (!done()) {
//               compactOne();
//               if (taskShouldYield()) {
//                   scheduleTask();
//                   return;
//               }
//           }
//       }
//   };
//   auto compactor = std::make_shared<Compactor>(Velik::schedulerRootVelik().get());
//   compactor->scheduleTask();
//
// Tasks are always owned by shared pointers (the scheduler holds one while
// the task runs) and belong to the thread of their scheduler's root; every
// public operation that touches the scheduler checks the thread. Every run is
// measured: run time, scheduling latency, quantum violations, and the work
// counts the task reports.
#pragma once

#include <Velik/ConstStringCache.h>
#include <Velik/IntrusiveBookmarkLinkedList.h>
#include <Velik/IntrusiveLinkedListBase.h>
#include <Velik/TaskMaybeU32.h>
#include <Velik/TaskPriority.h>
#include <Velik/TaskSchedulerEventType.h>
#include <Velik/TaskStatus.h>
#include <Velik/TaskTime.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

namespace Velik {

class TaskScheduler;
class TaskSchedulerRoot;
class TaskStat;
class RunHistograms;
// Frees histograms (defined with them, RunHistograms.h).
struct RunHistogramsDelete {
    void operator()(RunHistograms* histograms) const;
};

// Identifies a task in statistics tables: its address.
class TaskKey {
  public:
    constexpr TaskKey() = default;
    explicit TaskKey(const void* task) : value_(reinterpret_cast<std::uintptr_t>(task)) {}

    std::uintptr_t value() const { return value_; }
    // "0x" and the address in lower-case hexadecimal.
    std::string toStrep() const;

    friend bool operator==(TaskKey a, TaskKey b) { return a.value_ == b.value_; }

  private:
    std::uintptr_t value_ = 0;
};

// What one run of a task leaves for its scheduler (see `TaskImpl::taskDoRun`).
struct TaskRunRecord {
    // The steady-clock reading taken when the run ended.
    TaskTimePoint endTime{};
    // How long the run took, as counted in the task's run times: the steady
    // clock, or the framework clock for a task yielding on it.
    TaskTimeDuration elapsed{0};
};

// How `taskShouldYield()` decides.
enum class TaskShouldYieldMode : std::uint8_t {
    ticks = 0,          // processor tick counter, then the steady clock
    frameworkTime = 1,  // the host framework's (virtual) clock
    testRatio = 2,      // every ratio-th call, for tests
};

// The abstract root of every task: identity, names, priority and the test
// yield switches.
class _TaskBase : public std::enable_shared_from_this<_TaskBase> {
  public:
    static constexpr const char* traceClassName = "_TaskBase";

    _TaskBase(const _TaskBase&) = delete;
    _TaskBase& operator=(const _TaskBase&) = delete;

    // Renames the task in statistics (the task name itself stays).
    virtual void taskStatsNameIs(const std::string& name) = 0;
    // Whether the task is on a run queue.
    virtual bool taskScheduled() const = 0;
    // Whether the running task has used up its quantum and should return.
    // Never throws: a failure inside ends the process.
    virtual bool taskShouldYield() const = 0;
    // Reports `count` units of work done in this run.
    virtual void taskWorkCountInc(std::uint64_t count) = 0;
    // Reports how much work is waiting.
    virtual void taskWorkPendingIs(std::uint32_t pending) = 0;
    // Called when the task turns busy or idle.
    virtual void handleTaskBusy() {}
    // Called by the statistics reset, for subclasses with figures of their own.
    virtual void handleResetStats() {}
    virtual ~_TaskBase();

    TaskScheduler* scheduler() const { return scheduler_.get(); }
    // The name the task was given ("reader"): the display name without its
    // priority letter and blank, from the same interned text.
    ConstStringRef taskName() const { return taskDisplayName_.suffix(displayNamePrefix); }
    const ConstStringRef& taskStatsName() const { return taskStatsName_; }
    // The priority letter, one blank and the task name ("N reader"): the name
    // history events hold.
    const ConstStringRef& taskDisplayName() const { return taskDisplayName_; }
    TaskPriority taskPriority() const { return taskPriority_; }
    std::uint8_t taskTestYieldRatio() const { return taskTestYieldRatio_; }
    std::uint8_t taskTestYieldRatioEffective() const { return taskTestYieldRatioEffective_; }
    // Whether the task had more work (was scheduled again) when its last run
    // ended.
    bool taskBusy() const { return taskBusy_; }

    // The shared pointer that owns the task, taken to hold it alive across a
    // run. Asserts, naming the task, when none owns it ("Task <name> is not
    // owned by a std::shared_ptr: create it with std::make_shared"), instead
    // of a bare std::bad_weak_ptr far from the mistake. Costs what
    // `shared_from_this()` costs: the check is on the exception's cold path.
    std::shared_ptr<_TaskBase> taskOwner() {
        try {
            return shared_from_this();
        } catch (const std::bad_weak_ptr&) {
            taskNotOwnedFail();
        }
    }

  protected:
    // The letter and the blank before the task name in the display name.
    static constexpr std::size_t displayNamePrefix = 2;

    // Shares ownership of `scheduler` (which must be owned by a shared
    // pointer) and interns the display name in the thread's string cache:
    // one string per task name, which the task and statistics names share.
    _TaskBase(TaskScheduler* scheduler, TaskPriority priority, std::string_view name);
    // The same, sharing the caller's ownership of `scheduler`.
    _TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
              std::string_view name);

    // The assertion of `taskOwner()`; tells a task never owned from one whose
    // last owner is gone (being destroyed).
    [[noreturn, gnu::cold]] void taskNotOwnedFail() const;

    std::shared_ptr<TaskScheduler> scheduler_;
    ConstStringRef taskDisplayName_;
    ConstStringRef taskStatsName_;
    TaskPriority taskPriority_;
    std::uint8_t taskTestYieldRatio_ = 0;
    std::uint8_t taskTestYieldRatioEffective_ = 0;
    mutable std::uint8_t taskTestYieldCounter_ = 0;
    bool taskBusy_ = false;
};

// The task machinery: queueing, suspension, the quantum and yielding, one run
// with its accounting, integrity checks and the per-task counters.
class TaskImpl : public _TaskBase {
  public:
    static constexpr const char* traceClassName = "TaskImpl";
    static constexpr std::uint32_t taskMagicNumberConstructed = 0x42BE5AFE;
    static constexpr std::uint32_t taskMagicNumberDestroyed = 0xDEADDEAD;
    // `taskQuantumIs` accepts at most one second.
    static constexpr TaskTimeDuration taskQuantumMax = std::chrono::seconds(1);

    // Registers the task with `scheduler` (asserting "Need a TaskScheduler"
    // when there is none). The quantum starts as the scheduler's default.
    TaskImpl(TaskScheduler* scheduler, TaskPriority priority, std::string_view name);
    // The same, sharing the caller's ownership of `scheduler` (a root's or a
    // group's shared pointer converts).
    TaskImpl(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
             std::string_view name);
    // Turns forced yield off, unschedules and unregisters the task if still
    // needed. Never throws.
    ~TaskImpl() override;

    // --- Scheduling ---

    // Asks for one run: appends the task to its run queue unless it is
    // already queued. A request made while suspended is dropped (and
    // recorded); unsuspending queues the task. Asserts after `handleDestroy`.
    virtual void scheduleTask();
    // Takes the task off its run queue, if it is on one.
    void unscheduleTask();
    bool taskScheduled() const override;

    bool taskSuspended() const { return (flags_ & suspendedFlag) != 0; }
    // Suspending unschedules; unsuspending always leaves the task queued.
    void taskSuspendedIs(bool suspended);

    // Records busy/idle changes and calls `handleTaskBusy()` on a change.
    void taskBusyIs(bool busy, TaskTimePoint now);

    // Unschedules and unregisters the task; it may not run again.
    void handleDestroy();

    // --- Quantum and yielding ---

    TaskTimeDuration taskQuantum() const { return taskQuantum_; }
    // Asserts with "Quantum: " beyond one second.
    void taskQuantumIs(TaskTimeDuration quantum);
    // Asserts with "Quantum: " for zero or less; no upper limit.
    void taskQuantumNoCheckIs(TaskTimeDuration quantum);

    // Mode 0 reads the processor tick counter and consults the steady clock
    // at most about every 500 microseconds of processor time; mode 1 uses the
    // framework clock; mode 2 says yes on every ratio-th call. Asserts when
    // asked outside a run by a task that has run before.
    bool taskShouldYield() const override;
    TaskShouldYieldMode taskShouldYieldMode() const { return taskShouldYieldMode_; }
    void taskShouldYieldModeIs(TaskShouldYieldMode mode) { taskShouldYieldMode_ = mode; }
    // Picks the mode from the test ratio in force and the root's virtual time.
    void taskShouldYieldModeReevaluate();

    // The task's own forced-yield ratio (0 = none; the root's ratio applies).
    void taskTestYieldRatioIs(std::uint8_t ratio);
    // The ratio in force; restarts the call count.
    void taskTestYieldRatioEffectiveIs(std::uint8_t ratio);
    // Forced yield on every call (ratio 1) or off.
    void taskForceYieldInTestIs(bool on) { taskTestYieldRatioIs(on ? 1 : 0); }
    bool taskForceYieldInTest() const { return taskTestYieldRatio_ == 1; }

    // --- Running ---

    // The task's work. Called once per run.
    virtual void taskExecute() = 0;

    // Runs the task once, which must already be off its run queue (asserts
    // with the task's name otherwise): `taskExecute()` timed from `now`,
    // counted and recorded in the history. Called by the scheduler after it
    // picked the task. An exception from `taskExecute()` passes through and
    // leaves `taskCurrentlyRunning()` set; no record is returned then.
    TaskRunRecord taskDoRun(TaskTimePoint now);
    // Called by the scheduler when its run queue has just unlinked the task
    // to run it (`TaskRunQueue::unlinkPicked`): the queue stay ends at `now`,
    // which settles the latency and a schedule stamp still pending.
    void taskPickedAt(TaskTimePoint now);

    // Runs the task once outside the scheduler loop (unqueuing it first);
    // the run's statistics are discarded.
    virtual void taskRunFromTest();
    // The same, keeping the run's statistics.
    void taskRunAndRecordFromTest();

    bool taskCurrentlyRunning() const { return taskCurrentlyRunning_; }
    // How long the current run has taken so far; zero outside a run.
    TaskTimeDuration taskCurrentRunTime() const;

    // Lets a task known to run long take up to `threshold` per run before
    // the stall sentinel reports it (zero: the root's threshold again).
    void taskStallThresholdIs(TaskTimeDuration threshold);
    TaskTimeDuration taskStallThreshold() const;

    virtual TaskStatus taskStatus() const;
    virtual bool isTaskGroup() const { return false; }

    // Asserts unless called on the thread of the scheduler's root (see
    // `TaskSchedulerRoot::sanityCheckCurrentRunningThread`).
    void sanityCheckCurrentRunningThread() const;

    // --- Statistics ---

    void taskStatsNameIs(const std::string& name) override;
    void taskWorkCountInc(std::uint64_t count) override;
    void taskWorkPendingIs(std::uint32_t pending) override;

    // Whether the task's figures are kept among completed tasks after it is
    // deleted (on by default).
    bool includeInCompletedTask() const { return (flags_ & includeInCompletedFlag) != 0; }
    void includeInCompletedTaskIs(bool include);

    // Zeroes every counter, clears the marks and the task's histograms, then
    // `handleResetStats()`.
    void taskResetStats();
    // Keeps histograms of this task's own runs beside its scheduler's
    // (RunHistograms.h): made when turned on, freed when turned off.
    void taskHistogramsIs(bool on);
    const RunHistograms* taskHistograms() const { return taskHistograms_.get(); }
    RunHistograms* taskHistograms() { return taskHistograms_.get(); }
    // A copy of the counters under the stats name, with `taskStatus()`.
    TaskStat getStats() const;

    TaskKey taskKey() const { return TaskKey(this); }
    TaskTimePoint taskScheduledTime() const { return taskScheduledTime_; }
    TaskTimePoint taskRunStartTime() const { return taskRunStartTime_; }
    TaskTimeDuration lastSchedulingLatency() const { return lastSchedulingLatency_; }
    TaskTimeDuration schedulingLatencyHighWaterMark() const {
        return schedulingLatencyHighWaterMark_;
    }
    TaskTimeDuration taskTotalRunTime() const { return taskTotalRunTime_; }
    TaskTimeDuration taskMaxRunTime() const { return taskMaxRunTime_; }
    std::uint64_t workCountTotal() const { return workCountTotal_; }
    float workCountDecayAvg() const { return workCountDecayAvg_; }
    TaskMaybeU32 workCountHighWaterMark() const { return workCountHighWaterMark_; }
    std::uint32_t workPending() const { return workPending_; }
    TaskMaybeU32 workPendingHighWaterMark() const { return workPendingHighWaterMark_; }
    std::uint32_t qv500() const { return qv500_; }
    std::uint32_t qv200() const { return qv200_; }
    std::uint32_t taskRunCount() const { return taskRunCount_; }
    std::uint32_t taskMagicNumber() const { return taskMagicNumber_; }

  protected:
    // Registers with the scheduler (`taskRegister`).
    void handleInitialized();
    // Takes the task off its run queue (if on one), stamping the latency and
    // the history with `now`. Kinds of task that replace an immediate run
    // with something else (a timer) use it without re-reading the clock.
    void unscheduleTaskPrivate(TaskTimePoint now);
    // Asserts that the task may still be queued or armed: not after
    // `handleDestroy` (nor on memory that is no constructed task).
    void checkNotDestroyed() const;
    // Records an event of this task in the scheduler's history.
    void recordHistory(TaskTimePoint now, TaskSchedulerEventType type) const;
    TaskSchedulerRoot* root() const;
    // A timer's expiry queued the task: its pick records the lateness.
    void noteTimerExpiry() { flags_ |= timerExpiredFlag; }

  private:
    static constexpr std::uint8_t suspendedFlag = 0x01;
    static constexpr std::uint8_t includeInCompletedFlag = 0x02;
    // Queued during its own run; stamped with the run's end time.
    static constexpr std::uint8_t scheduleStampPendingFlag = 0x04;
    // Has a stall threshold of its own (kept by the root's publication).
    static constexpr std::uint8_t stallThresholdFlag = 0x08;
    // Queued by its timer's expiry: the run records the timer's lateness.
    static constexpr std::uint8_t timerExpiredFlag = 0x10;

    // Whether `scheduleTask` is called by the task's own scheduler run.
    bool reschedulingItself() const;
    void taskRunQueueAppend();
    // Gives a task queued during its own run the stamp `now` and records
    // its `schedule` (and `busy`) events; nothing otherwise.
    void scheduleStampSettle(TaskTimePoint now);
    // Latency of the queue stay that just ended at `now`.
    void schedulingLatencyIs(TaskTimePoint now);
    void recordRunTime(TaskTimeDuration elapsed);
    // Defined with timer tasks, the only kind that sets the flag.
    void timerLatenessRecord();

    // The data, in the order a run uses it: the three bytes fill the tail of
    // `_TaskBase`, and all that a run touches lies in the object's first
    // 168 bytes (three cache lines), the work statistics last.
    std::uint8_t flags_ = 0;
    TaskShouldYieldMode taskShouldYieldMode_ = TaskShouldYieldMode::ticks;
    bool taskCurrentlyRunning_ = false;

  public:
    // Membership of a run queue (`TaskRunQueue` links and unlinks it, and
    // counts as it does) and of the scheduler's registered list.
    ListLinkNode<TaskImpl> taskRunQueueLink_;

  private:
    TaskTimeDuration taskQuantum_{0};
    TaskTimePoint taskScheduledTime_{};
    TaskTimePoint taskRunStartTime_{};
    TaskTimeDuration lastSchedulingLatency_{0};
    TaskTimeDuration schedulingLatencyHighWaterMark_{0};
    TaskTimeDuration taskTotalRunTime_{0};
    TaskTimeDuration taskMaxRunTime_{0};
    std::uint32_t taskRunCount_ = 0;
    std::uint32_t taskMagicNumber_ = 0;
    std::uint32_t qv500_ = 0;
    std::uint32_t qv200_ = 0;
    mutable std::uint64_t taskYieldCheckTicks_ = 0;
    std::unique_ptr<RunHistograms, RunHistogramsDelete> taskHistograms_;  // null unless asked for

  public:
    BookmarkListLinkNode<TaskImpl> taskRegisteredLink_;

  private:
    std::uint64_t workCountTotal_ = 0;
    float workCountDecayAvg_ = 0.0f;
    TaskMaybeU32 workCountHighWaterMark_;
    std::uint32_t workPending_ = 0;
    TaskMaybeU32 workPendingHighWaterMark_;
};

// The class applications derive from. The task must be owned by a shared
// pointer (`std::make_shared`) before it first runs; a run of a task that
// none owns asserts.
class Task : public TaskImpl {
  public:
    Task(TaskScheduler* scheduler, TaskPriority priority, std::string_view name)
        : TaskImpl(scheduler, priority, name) {}
    // The same, sharing the caller's ownership of `scheduler`: a root's or a
    // group's shared pointer converts.
    Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string_view name)
        : TaskImpl(std::move(scheduler), priority, name) {}

    bool taskScheduled() const override { return TaskImpl::taskScheduled(); }
    void scheduleTask() override { TaskImpl::scheduleTask(); }
    void taskRunFromTest() override { TaskImpl::taskRunFromTest(); }
    TaskStatus taskStatus() const override { return TaskImpl::taskStatus(); }
};

// Prints the task's display name.
std::ostream& operator<<(std::ostream& stream, const _TaskBase* task);

}  // namespace Velik
