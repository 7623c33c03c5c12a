#include "Velik/Task.h"

#include "Velik/Assert.h"
#include "Velik/Fmtrace.h"
#include "Velik/TaskRunQueue.h"
#include "Velik/TaskScheduler.h"
#include "Velik/TaskSchedulerHistory.h"
#include "Velik/TaskSchedulerRoot.h"

#include "Kiv/System.h"
#include "Kiv/Ticks.h"

#include <exception>
#include <memory>
#include <utility>

namespace Velik {

namespace {

// The priority letters by value; priorities are checked when a task
// registers, so the hot paths index without asking `oneChar`.
constexpr char priorityLetters[] = {'A', 'H', 'N', 'L', 'S', '-'};

ConstStringRef intern(std::string_view text) {
    return ConstStringCache::forThisThread().intern(text);
}

// The letter of a priority that may be out of range: registration asserts on
// such a priority with its own message, so naming the task must not.
char displayLetter(TaskPriority priority) {
    const auto value = static_cast<std::size_t>(priority);
    return value < sizeof priorityLetters ? priorityLetters[value] : '?';
}

ConstStringRef internDisplayName(TaskPriority priority, std::string_view name) {
    fmt::basic_memory_buffer<char, 128> text;  // no heap for usual names
    text.push_back(displayLetter(priority));
    text.push_back(' ');
    text.append(name.data(), name.data() + name.size());
    return intern(std::string_view(text.data(), text.size()));
}

}  // namespace

std::string TaskKey::toStrep() const {
    return fmt::format("{:#x}", value_);
}

// --- _TaskBase ---

_TaskBase::_TaskBase(TaskScheduler* scheduler, TaskPriority priority, std::string_view name)
    : _TaskBase(scheduler ? scheduler->shared_from_this() : nullptr, priority, name) {}

_TaskBase::_TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     std::string_view name)
    : scheduler_(std::move(scheduler)),
      taskDisplayName_(internDisplayName(priority, name)),
      taskStatsName_(taskDisplayName_.suffix(displayNamePrefix)),
      taskPriority_(priority) {}

_TaskBase::~_TaskBase() = default;

void _TaskBase::taskNotOwnedFail() const {
    // An empty weak reference was never set: no shared pointer ever took the
    // task. One that merely expired belonged to a shared pointer now gone.
    const std::weak_ptr<const _TaskBase> self = weak_from_this();
    const bool neverOwned = !self.owner_before(std::weak_ptr<const _TaskBase>{}) &&
                            !std::weak_ptr<const _TaskBase>{}.owner_before(self);
    if (neverOwned) {
        VELIK_CLASS_ASSERT(false,
                           "Task {} is not owned by a std::shared_ptr: create it with "
                           "std::make_shared",
                           taskName());
    }
    VELIK_CLASS_ASSERT(false, "Task {} is run while being destroyed: no std::shared_ptr owns it",
                       taskName());
}

std::ostream& operator<<(std::ostream& stream, const _TaskBase* task) {
    return stream << task->taskDisplayName();
}

// --- Construction and destruction ---

TaskImpl::TaskImpl(TaskScheduler* scheduler, TaskPriority priority, std::string_view name)
    : TaskImpl(scheduler ? scheduler->shared_from_this() : nullptr, priority, name) {}

TaskImpl::TaskImpl(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                   std::string_view name)
    : _TaskBase(std::move(scheduler), priority, name) {
    if (scheduler_) {
        taskQuantum_ = scheduler_->defaultTaskQuantum();
    }
    taskMagicNumber_ = taskMagicNumberConstructed;
    includeInCompletedTaskIs(true);
    taskShouldYieldModeReevaluate();
    handleInitialized();
}

void TaskImpl::handleInitialized() {
    VELIK_CLASS_ASSERT(scheduler_ != nullptr, "{}", "Need a TaskScheduler");
    scheduler_->taskRegister(this);
}

void TaskImpl::handleDestroy() {
    unscheduleTask();
    scheduler_->taskUnregister(this);
    taskMagicNumber_ = taskMagicNumberDestroyed;
}

TaskImpl::~TaskImpl() {
    // noexcept: an assertion that throws here ends the process.
    taskForceYieldInTestIs(false);
    if (scheduler_) {
        unscheduleTask();
        if (taskRegisteredLink_.isLinked()) {  // not after handleDestroy
            scheduler_->taskUnregister(this);
        }
    }
    taskMagicNumber_ = taskMagicNumberDestroyed;
    if ((flags_ & stallThresholdFlag) && scheduler_) {
        root()->runPublication().taskStallThresholdIs(this, TaskTimeDuration(0));
    }
    TaskRunQueue::TaskList::remove(*this);
    TaskScheduler::TaskList::remove(*this);
}

TaskSchedulerRoot* TaskImpl::root() const {
    return scheduler_ ? scheduler_->root() : nullptr;
}

void TaskImpl::sanityCheckCurrentRunningThread() const {
    if (TaskSchedulerRoot* r = root()) {
        r->sanityCheckCurrentRunningThread();
    }
}

namespace {

// The body of `recordHistory`, inlined into the three events of every run.
[[gnu::always_inline]] inline void recordTaskEvent(const TaskImpl& task, TaskTimePoint now,
                                                   TaskSchedulerEventType type) {
    task.scheduler()->history()->insertTaskEvent(now, type, task.taskDisplayName());
}

}  // namespace

void TaskImpl::recordHistory(TaskTimePoint now, TaskSchedulerEventType type) const {
    recordTaskEvent(*this, now, type);
}

// --- Scheduling ---

[[gnu::flatten]] void TaskImpl::scheduleTask() {
    sanityCheckCurrentRunningThread();
    if (taskRunQueueLink_.isLinked()) {
        return;
    }
    checkNotDestroyed();
    if (reschedulingItself()) {
        // The usual "more work: yield" path. The stamp and the history
        // event wait for the run's end time, which is read anyway: one clock
        // reading serves both, and the latency counts from the moment the
        // task could first be picked again.
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "Scheduled {}", taskDisplayName());
        taskRunQueueAppend();
        flags_ |= scheduleStampPendingFlag;
        return;
    }
    TaskTimePoint now = taskSteadyNow();
    if (taskSuspended()) {
        // Dropped: unsuspending queues the task anyway.
        recordHistory(now, TaskSchedulerEventType::scheduleSus);
        return;
    }
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "Scheduled {}", taskDisplayName());
    recordHistory(now, TaskSchedulerEventType::schedule);
    taskScheduledTime_ = now;
    taskRunQueueAppend();
    scheduler_->schedulerHasRunnableTasksIs(true, now);
    taskBusyIs(taskScheduled(), now);
}

void TaskImpl::checkNotDestroyed() const {
    if (taskMagicNumber_ != taskMagicNumberConstructed) [[unlikely]] {
        // Queued, it would fail only at its run, far from the mistake.
        VELIK_CLASS_ASSERT(false, "Task: {} scheduled after handleDestroy (taskMagicNumber: {})",
                           taskDisplayName(), taskMagicNumber_);
    }
}

bool TaskImpl::reschedulingItself() const {
    // Only inside a scheduler run of this very task (not a test run, not
    // after an exception left the running flag set), in a scheduler that is
    // runnable already, so that nothing but the stamp depends on the time.
    return taskCurrentlyRunning_ && scheduler_->currentlyRunningTask() == this &&
           scheduler_->schedulerHasRunnableTasks() && !taskSuspended();
}

void TaskImpl::taskRunQueueAppend() {
    scheduler_->taskRunQueueOf(*this).link(*this);
}

void TaskImpl::scheduleStampSettle(TaskTimePoint now) {
    if ((flags_ & scheduleStampPendingFlag) == 0) {
        return;
    }
    flags_ &= ~scheduleStampPendingFlag;
    recordTaskEvent(*this, now, TaskSchedulerEventType::schedule);
    taskScheduledTime_ = now;
    taskBusyIs(true, now);
}

void TaskImpl::unscheduleTask() {
    unscheduleTaskPrivate(taskSteadyNow());
}

void TaskImpl::unscheduleTaskPrivate(TaskTimePoint now) {
    if (!taskRunQueueLink_.isLinked()) {
        return;
    }
    scheduleStampSettle(now);
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "Unscheduled {}", taskDisplayName());
    recordHistory(now, TaskSchedulerEventType::unschedule);
    scheduler_->taskRunQueueOf(*this).unlink(*this);
    schedulingLatencyIs(now);
    flags_ &= ~timerExpiredFlag;  // the stay ended without the run it caused
}

void TaskImpl::taskPickedAt(TaskTimePoint now) {
    scheduleStampSettle(now);
    schedulingLatencyIs(now);
    if (flags_ & timerExpiredFlag) [[unlikely]] {
        timerLatenessRecord();
    }
}

void TaskImpl::schedulingLatencyIs(TaskTimePoint now) {
    lastSchedulingLatency_ = now - taskScheduledTime_;
    if (lastSchedulingLatency_ > schedulingLatencyHighWaterMark_) {
        schedulingLatencyHighWaterMark_ = lastSchedulingLatency_;
    }
}

bool TaskImpl::taskScheduled() const {
    sanityCheckCurrentRunningThread();
    return taskRunQueueLink_.isLinked();
}

void TaskImpl::taskSuspendedIs(bool suspended) {
    if (suspended == taskSuspended()) {
        return;
    }
    flags_ = suspended ? (flags_ | suspendedFlag) : (flags_ & ~suspendedFlag);
    TaskTimePoint now = taskSteadyNow();
    if (suspended) {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 1, "Suspend {}", taskDisplayName());
        recordHistory(now, TaskSchedulerEventType::suspendOn);
        unscheduleTask();
    } else {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 1, "Unsuspend {}", taskDisplayName());
        recordHistory(now, TaskSchedulerEventType::suspendOff);
        if (!taskScheduled()) {
            scheduleTask();
        }
    }
}

void TaskImpl::taskBusyIs(bool busy, TaskTimePoint now) {
    if (busy == taskBusy_) {
        return;
    }
    taskBusy_ = busy;
    recordHistory(now, busy ? TaskSchedulerEventType::busy : TaskSchedulerEventType::idle);
    handleTaskBusy();
}

// --- Quantum and yielding ---

void TaskImpl::taskQuantumIs(TaskTimeDuration quantum) {
    VELIK_CLASS_ASSERT(quantum <= taskQuantumMax, "Quantum: {}", quantum.count());
    taskQuantumNoCheckIs(quantum);
}

void TaskImpl::taskQuantumNoCheckIs(TaskTimeDuration quantum) {
    if (quantum == taskQuantum_) {
        return;
    }
    VELIK_CLASS_ASSERT(quantum.count() > 0, "Quantum: {}", quantum.count());
    taskQuantum_ = quantum;
    // Only a quantum of its own is worth noting at the registration level.
    unsigned level = scheduler_ && quantum == scheduler_->defaultTaskQuantum() ? 9 : 4;
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, level, "Set quantum {} to {}", taskDisplayName(),
                quantum.count());
}

bool TaskImpl::taskShouldYield() const {
    // noexcept by contract: a failure here must not unwind into the task's
    // inner loop.
    try {
        VELIK_CLASS_ASSERT(taskCurrentlyRunning_ || taskRunCount_ == 0,
                           "taskCurrentlyRunning: {} taskRunCount: {}", taskCurrentlyRunning_,
                           taskRunCount_);
        switch (taskShouldYieldMode_) {
            case TaskShouldYieldMode::ticks: {
                // The window first: its one-time calibration must not fall
                // between the tick reading and the test.
                const std::uint64_t window = Kiv::ticksPer500Microseconds();
                const std::uint64_t t = Kiv::ticks();
                if (t >= taskYieldCheckTicks_ && t < taskYieldCheckTicks_ + window) {
                    return false;
                }
                taskYieldCheckTicks_ = t;
                TaskTimePoint now = taskSteadyNow();
                if (now < taskRunStartTime_ || now - taskRunStartTime_ >= taskQuantum_) {
                    taskYieldCheckTicks_ = 0;
                    return true;
                }
                return false;
            }
            case TaskShouldYieldMode::frameworkTime:
                return Kiv::System::currentTime() - scheduler_->frameworkRunStartTime() >=
                       static_cast<double>(taskQuantum_.count()) / 1e9;
            case TaskShouldYieldMode::testRatio:
                if (taskTestYieldRatioEffective_ == 0) {  // mode set by hand
                    return false;
                }
                ++taskTestYieldCounter_;  // modulo 256 by its width
                return taskTestYieldCounter_ % taskTestYieldRatioEffective_ == 0;
        }
        VELIK_CLASS_ASSERT(false, "Unexpected value {}",
                           static_cast<unsigned>(taskShouldYieldMode_));
    } catch (...) {
        std::terminate();
    }
    return false;
}

void TaskImpl::taskShouldYieldModeReevaluate() {
    TaskSchedulerRoot* r = root();
    std::uint8_t ratio = taskTestYieldRatio_ ? taskTestYieldRatio_
                         : r                 ? r->taskTestYieldRatio()
                                             : 0;
    taskTestYieldRatioEffectiveIs(ratio);
    if (ratio != 0) {
        taskShouldYieldMode_ = TaskShouldYieldMode::testRatio;
    } else if (r && r->virtualTime()) {
        if (taskShouldYieldMode_ != TaskShouldYieldMode::frameworkTime && taskCurrentlyRunning_) {
            scheduler_->frameworkRunStartTimeIs(Kiv::System::currentTime());
        }
        taskShouldYieldMode_ = TaskShouldYieldMode::frameworkTime;
    } else {
        taskShouldYieldMode_ = TaskShouldYieldMode::ticks;
    }
}

void TaskImpl::taskTestYieldRatioIs(std::uint8_t ratio) {
    if (ratio == taskTestYieldRatio_) {
        return;
    }
    taskTestYieldRatio_ = ratio;
    if (scheduler_) {
        recordHistory(taskSteadyNow(), ratio ? TaskSchedulerEventType::frcYieldOn
                                             : TaskSchedulerEventType::frcYieldOff);
    }
    taskShouldYieldModeReevaluate();
}

void TaskImpl::taskTestYieldRatioEffectiveIs(std::uint8_t ratio) {
    if (ratio == taskTestYieldRatioEffective_) {
        return;
    }
    bool wasOn = taskTestYieldRatioEffective_ != 0;
    taskTestYieldRatioEffective_ = ratio;
    taskTestYieldCounter_ = 0;
    if (scheduler_ && wasOn != (ratio != 0)) {
        scheduler_->taskForceYieldInTestNotify(this, ratio != 0);
    }
}

// --- Running ---

// Flattened: the per-run accounting and history are inlined into the run.
namespace {

// Puts the enclosing run back in the publication when a run is left by an
// exception or by a thread's forced unwind; a run that returns ends through
// `runEnded`, with its end time.
struct PublishedRunGuard {
    Impl::RunPublication& publication;
    Impl::RunPublication::Run outer;
    Impl::RunPublication::Run run;
    bool open = true;
    ~PublishedRunGuard() {
        if (open) [[unlikely]] {
            publication.runEnded(outer, run, taskSteadyNow());
        }
    }
};

}  // namespace

[[gnu::flatten]] TaskRunRecord TaskImpl::taskDoRun(TaskTimePoint now) {
    recordTaskEvent(*this, now, TaskSchedulerEventType::runStart);
    VELIK_CLASS_ASSERT(!taskRunQueueLink_.isLinked(), "{}", taskDisplayName());
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "Running {}", taskDisplayName());
    Impl::RunPublication& publication = scheduler_->root()->runPublication();
    PublishedRunGuard published{publication, publication.runStarted(this, now), {this, now}};
    taskRunStartTime_ = now;
    const bool frameworkClock = taskShouldYieldMode_ == TaskShouldYieldMode::frameworkTime;
    if (frameworkClock) {
        scheduler_->frameworkRunStartTimeIs(Kiv::System::currentTime());
    }
    ++taskRunCount_;
    taskCurrentlyRunning_ = true;
    taskExecute();
    taskCurrentlyRunning_ = false;
    VELIK_CLASS_ASSERT(taskMagicNumber_ == taskMagicNumberConstructed,
                       "Task: {} taskMagicNumber: {} taskMagicNumberConstructed: {}",
                       taskDisplayName(), taskMagicNumber_, taskMagicNumberConstructed);
    const TaskTimePoint endTime = taskSteadyNow();
    published.open = false;
    publication.runEnded(published.outer, published.run, endTime);
    TaskTimeDuration elapsed = endTime - taskRunStartTime_;
    if (frameworkClock) {
        double seconds = Kiv::System::currentTime() - scheduler_->frameworkRunStartTime();
        VELIK_CLASS_ASSERT(seconds >= 0.0, "negative framework run time {}", seconds);
        elapsed = TaskTimeDuration(static_cast<std::int64_t>(seconds * 1e9));
    }
    scheduleStampSettle(endTime);
    recordRunTime(elapsed);
    recordTaskEvent(*this, endTime, TaskSchedulerEventType::runEnd);
    taskBusyIs(taskRunQueueLink_.isLinked(), endTime);
    return TaskRunRecord{endTime, elapsed};
}

void TaskImpl::recordRunTime(TaskTimeDuration elapsed) {
    // Divided rather than the quantum multiplied, which overflows for the
    // largest quanta; the same bounds for whole nanoseconds (elapsed is never
    // negative).
    if (taskQuantum_.count() != 0 && elapsed / 2 >= taskQuantum_) {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 5, "Ran {} used {} {}% violation", taskDisplayName(),
                    elapsed.count(),
                    static_cast<std::int64_t>(static_cast<__int128>(elapsed.count()) * 100 /
                                              taskQuantum_.count()));
        if (elapsed / 5 < taskQuantum_) {
            ++qv200_;
        } else {
            ++qv500_;
        }
    } else {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 7, "Ran {} used {}", taskDisplayName(), elapsed.count());
    }
    if (elapsed > taskMaxRunTime_) {
        taskMaxRunTime_ = elapsed;
    }
    taskTotalRunTime_ += elapsed;
}

void TaskImpl::taskRunAndRecordFromTest() {
    TaskTimePoint now = taskSteadyNow();
    unscheduleTaskPrivate(now);
    taskDoRun(now);
}

void TaskImpl::taskRunFromTest() {
    // Runs through the same path, then puts the counters back as they were.
    const auto runCount = taskRunCount_;
    const auto totalRunTime = taskTotalRunTime_;
    const auto maxRunTime = taskMaxRunTime_;
    const auto qv200 = qv200_;
    const auto qv500 = qv500_;
    taskRunAndRecordFromTest();
    taskRunCount_ = runCount;
    taskTotalRunTime_ = totalRunTime;
    taskMaxRunTime_ = maxRunTime;
    qv200_ = qv200;
    qv500_ = qv500;
}

TaskTimeDuration TaskImpl::taskCurrentRunTime() const {
    return taskCurrentlyRunning_ ? taskSteadyNow() - taskRunStartTime_ : TaskTimeDuration(0);
}

void TaskImpl::taskStallThresholdIs(TaskTimeDuration threshold) {
    root()->runPublication().taskStallThresholdIs(this, threshold);
    flags_ =
        threshold.count() != 0 ? (flags_ | stallThresholdFlag) : (flags_ & ~stallThresholdFlag);
}

TaskTimeDuration TaskImpl::taskStallThreshold() const {
    return (flags_ & stallThresholdFlag) ? root()->runPublication().taskStallThreshold(this)
                                         : TaskTimeDuration(0);
}

TaskStatus TaskImpl::taskStatus() const {
    TaskStatus status;
    status.taskCurrentlyRunningIs(taskCurrentlyRunning_);
    status.taskOnRunQueueIs(taskRunQueueLink_.isLinked());
    status.taskSuspendedIs(taskSuspended());
    status.taskIsTaskGroupIs(isTaskGroup());
    return status;
}

// --- Statistics ---

void TaskImpl::taskStatsNameIs(const std::string& name) {
    // The task's own name is served from the display name, not interned again.
    ConstStringRef own = taskName();
    taskStatsName_ = own.view() == name ? std::move(own) : intern(name);
}

void TaskImpl::includeInCompletedTaskIs(bool include) {
    flags_ = include ? (flags_ | includeInCompletedFlag) : (flags_ & ~includeInCompletedFlag);
}

void TaskImpl::taskWorkCountInc(std::uint64_t count) {
    workCountTotal_ += count;
    const auto sample = static_cast<std::uint32_t>(count);
    if (!workCountHighWaterMark_.hasValue()) {
        workCountDecayAvg_ = static_cast<float>(count);
        workCountHighWaterMark_.sampleIs(sample);
        return;
    }
    workCountDecayAvg_ = (9.0f * workCountDecayAvg_ + static_cast<float>(count)) / 10.0f;
    if (count > workCountHighWaterMark_.value()) {
        workCountHighWaterMark_.sampleIs(sample);
    }
}

void TaskImpl::taskWorkPendingIs(std::uint32_t pending) {
    workPending_ = pending;
    if (!workPendingHighWaterMark_.hasValue() || pending > workPendingHighWaterMark_.value()) {
        workPendingHighWaterMark_.sampleIs(pending);
    }
}

}  // namespace Velik
