#include "Velik/TaskScheduler.h"

#include "Velik/Assert.h"
#include "Velik/Fmtrace.h"
#include "Velik/TaskSchedulerHistory.h"
#include "Velik/TaskSchedulerRoot.h"

#include <utility>

namespace Velik {

namespace {

// Weights of the starvation rule, by priority: a waiting high task counts 64
// times a waiting low one.
constexpr std::uint32_t bumpWeight[taskPriorityCount] = {0, 64, 8, 1, 0};

TaskPriority priorityAt(std::size_t index) {
    return static_cast<TaskPriority>(index);
}

}  // namespace

TaskScheduler::TaskScheduler(std::string_view name, TaskSchedulerRoot* root,
                             std::shared_ptr<TaskSchedulerHistory> history)
    : schedulerName_(ConstStringCache::forThisThread().intern(name)),
      root_(root),
      history_(std::move(history)) {
    runHistogramsIs(true);
}

TaskScheduler::~TaskScheduler() = default;

std::size_t TaskScheduler::indexOf(TaskPriority priority) {
    return static_cast<std::size_t>(priority);
}

void TaskScheduler::checkPriority(TaskPriority priority, const char* function) const {
    if (indexOf(priority) >= taskPriorityCount) [[unlikely]] {
        Impl::assertFailed(VELIK_SOURCE_NAME, __LINE__, true, function, traceClassName, "{}",
                           static_cast<unsigned>(priority));
    }
}

TaskRunQueue& TaskScheduler::taskRunQueue(TaskPriority priority) {
    checkPriority(priority, __func__);
    return taskRunQueues_[indexOf(priority)];
}

const TaskRunQueue& TaskScheduler::taskRunQueue(TaskPriority priority) const {
    checkPriority(priority, __func__);
    return taskRunQueues_[indexOf(priority)];
}

void TaskScheduler::recordHistory(TaskTimePoint now, TaskSchedulerEventType type) const {
    history_->insertSchedulerEvent(now, type, schedulerName_);
}

// --- Registration ---

void TaskScheduler::taskRegister(TaskImpl* task) {
    root_->sanityCheckCurrentRunningThread();
    TaskTimePoint now = taskSteadyNow();
    checkPriority(task->taskPriority(), __func__);
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 4, "{} Register {}", schedulerName_, task->taskDisplayName());
    VELIK_CLASS_ASSERT(!task->taskRegisteredLink_.isLinked(), "Task: {} already registered",
                       task->taskDisplayName());
    tasks_.pushFront(*task);
    tasksPerPriorityInc(task->taskPriority());
    history_->insertTaskEvent(now, TaskSchedulerEventType::create, task->taskDisplayName());
}

void TaskScheduler::taskUnregister(TaskImpl* task) {
    root_->sanityCheckCurrentRunningThread();
    TaskTimePoint now = taskSteadyNow();
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 4, "{} Unregister {}", schedulerName_,
                task->taskDisplayName());
    VELIK_CLASS_ASSERT(!task->taskRunQueueLink_.isLinked(), "Task: {} scheduled on unregister",
                       task->taskDisplayName());
    VELIK_CLASS_ASSERT(task->taskRegisteredLink_.isLinked(), "Task: {} not registered",
                       task->taskDisplayName());
    // Moves a marked task from the registered to the completed count; after
    // the check above, so a task is never folded in twice.
    updateCompletedTaskStats(task);
    if (forceYieldTasks_.count(task)) {
        taskForceYieldInTestNotify(task, false);
    }
    TaskList::remove(*task);
    if (!task->includeInCompletedTask()) {
        tasksPerPriorityDec(task->taskPriority());
    }
    history_->insertTaskEvent(now, TaskSchedulerEventType::del, task->taskDisplayName());
}

void TaskScheduler::defaultTaskQuantumIs(TaskTimeDuration quantum) {
    // New tasks take it without a check of their own.
    VELIK_CLASS_ASSERT(quantum.count() > 0, "Quantum: {}", quantum.count());
    defaultTaskQuantum_ = quantum;
}

TaskImpl* TaskScheduler::taskForTest(std::string_view name) const {
    for (TaskImpl& task : tasks_) {
        if (task.taskName().view() == name) {
            return &task;
        }
    }
    return nullptr;
}

// --- Counts ---

std::uint32_t TaskScheduler::tasksPerPriority(TaskPriority priority) const {
    checkPriority(priority, __func__);
    return tasksPerPriority_[indexOf(priority)];
}

void TaskScheduler::tasksPerPriorityInc(TaskPriority priority) {
    checkPriority(priority, __func__);
    ++tasksPerPriority_[indexOf(priority)];
}

void TaskScheduler::tasksPerPriorityDec(TaskPriority priority) {
    checkPriority(priority, __func__);
    std::uint32_t& count = tasksPerPriority_[indexOf(priority)];
    VELIK_CLASS_ASSERT(count != 0, "Priority: {} count: {}", priority, count);
    --count;
}

std::uint32_t TaskScheduler::completedTasksPerPriority(TaskPriority priority) const {
    checkPriority(priority, __func__);
    return completedTasksPerPriority_[indexOf(priority)];
}

void TaskScheduler::completedTasksPerPriorityInc(TaskPriority priority) {
    checkPriority(priority, __func__);
    ++completedTasksPerPriority_[indexOf(priority)];
}

void TaskScheduler::completedTasksPerPriorityDec(TaskPriority priority) {
    checkPriority(priority, __func__);
    std::uint32_t& count = completedTasksPerPriority_[indexOf(priority)];
    VELIK_CLASS_ASSERT(count != 0, "Priority: {} count: {}", priority, count);
    --count;
}

std::uint32_t TaskScheduler::runnableTaskCount(TaskPriority priority) const {
    std::int64_t waiting = taskRunQueue(priority).waiting();
    VELIK_CLASS_ASSERT(waiting >= 0, "Priority: {} runnableTasks: {}", priority, waiting);
    return static_cast<std::uint32_t>(waiting);
}

std::uint32_t TaskScheduler::runnableTaskCount() const {
    std::uint32_t total = 0;
    for (std::size_t i = 0; i < taskPriorityCount; ++i) {
        total += runnableTaskCount(priorityAt(i));
    }
    return total;
}

std::uint64_t TaskScheduler::runTaskCount(TaskPriority priority) const {
    return taskRunQueue(priority).runCount();
}

// --- Running ---

void TaskScheduler::schedulerHasRunnableTasksIs(bool runnable, TaskTimePoint now) {
    if (runnable == schedulerHasRunnableTasks_) {
        return;
    }
    schedulerHasRunnableTasks_ = runnable;
    if (runnable) {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "{} Scheduler has runnable tasks, request run",
                    schedulerName_);
        recordHistory(now, TaskSchedulerEventType::schedulerRunnable);
        lastRunRequestTime_ = now;
        requestSchedulerRun();
    } else {
        recordHistory(now, TaskSchedulerEventType::schedulerIdle);
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "{} Scheduler idle", schedulerName_);
    }
}

void TaskScheduler::requestSchedulerRunAndRecord(TaskTimePoint now) {
    lastRunRequestTime_ = now;
    requestSchedulerRun();
}

void TaskScheduler::checkSchedulerLatency(TaskTimePoint now) {
    currentRunTime_ = now;
    TaskTimeDuration slip = currentRunTime_ - lastRunRequestTime_;
    if (slip > maxSchedulerSlip_) {
        maxSchedulerSlip_ = slip;
    }
}

void TaskScheduler::handleSchedulerRun() {
    handleSchedulerRunAt(taskSteadyNow());
}

[[gnu::flatten]] void TaskScheduler::handleSchedulerRunAt(TaskTimePoint now) {
    checkSchedulerLatency(now);
    if (root_->suspended()) {
        // The request is consumed; unsuspending requests a new run.
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "{} Suspended", schedulerName_);
        recordHistory(now, TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended);
        return;
    }
    TaskImpl* task = pickOneTask(now, TaskPriority::absolute);
    if (!task) {
        schedulerHasRunnableTasksIs(false, now);
        return;
    }
    // Holds the task for the run even if taskExecute drops the last outside
    // reference. A task no shared pointer owns asserts here, naming itself:
    // its first run is the first moment that is certain, since a task may
    // schedule itself from its own constructor, before it has an owner.
    currentlyRunning_ = task->taskOwner();
    // Released on every way out, and only after the last member access: the
    // task may hold the last reference to this scheduler.
    struct ReleaseRunning {
        std::shared_ptr<_TaskBase>& slot;
        ~ReleaseRunning() { std::shared_ptr<_TaskBase> last = std::exchange(slot, nullptr); }
    } release{currentlyRunning_};
    const TaskTimeDuration latency = task->lastSchedulingLatency();  // before the run moves it
    TaskRunRecord run;
    try {
        run = task->taskDoRun(now);
    } catch (...) {
        // The exception goes on to the loop's caller; the next run is still
        // requested, so work queued meanwhile (or later) is not stranded.
        requestSchedulerRun();
        throw;
    }
    if (runHistograms_) {
        runHistogramsRecord(*task, latency, run.elapsed);
    }
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "{} Scheduler completed task, request run",
                schedulerName_);
    lastRunRequestTime_ = run.endTime;
    requestSchedulerRun();
}

TaskImpl* TaskScheduler::pickOneTask(TaskTimePoint now, TaskPriority from) {
    if (from > TaskPriority::scavenge) {
        return nullptr;
    }
    TaskImpl* task = nullptr;
    std::size_t p = indexOf(from);
    for (; p < taskPriorityCount; ++p) {
        TaskRunQueue& queue = taskRunQueues_[p];
        task = queue.front();
        if (task) {
            break;
        }
        if (queue.consecutiveRuns() != 0) {  // empty queues stay untouched
            queue.consecutiveRunsReset();
        }
    }
    if (!task) {
        return nullptr;
    }
    TaskRunQueue& queue = taskRunQueues_[p];
    if (attemptLowerPriorityBump(priorityAt(p), queue.consecutiveRuns())) {
        if (TaskImpl* lower = pickOneTask(now, priorityAt(p + 1))) {
            queue.consecutiveRunsReset();
            return lower;
        }
    }
    queue.unlinkPicked(*task);
    task->taskPickedAt(now);
    return task;
}

bool TaskScheduler::attemptLowerPriorityBump(TaskPriority p, std::uint32_t n) const {
    if (p != TaskPriority::high && p != TaskPriority::normal) {
        return false;
    }
    auto waiting = [this](std::size_t q) {
        return static_cast<std::uint32_t>(taskRunQueues_[q].waiting());
    };
    std::uint32_t lower = 0;
    for (std::size_t q = indexOf(p) + 1; q <= indexOf(TaskPriority::low); ++q) {
        lower += bumpWeight[q] * waiting(q);
    }
    if (lower == 0) {
        return false;
    }
    return lower * n > waiting(indexOf(p)) * bumpWeight[indexOf(p)];
}

void TaskScheduler::taskRunQueuesMovePersistentToTemporary() {
    for (TaskRunQueue& queue : taskRunQueues_) {
        queue.movePersistentToTemporary();
    }
}

void TaskScheduler::taskRunQueuesMoveTemporaryToPersistent() {
    for (TaskRunQueue& queue : taskRunQueues_) {
        queue.moveTemporaryToPersistent();
    }
}

void TaskScheduler::taskForceYieldInTestNotify(TaskImpl* task, bool on) {
    const bool wasEmpty = forceYieldTasks_.empty();
    if (on) {
        forceYieldTasks_.insert(task);
    } else {
        forceYieldTasks_.erase(task);
    }
    if (wasEmpty != forceYieldTasks_.empty()) {
        handleTaskForceYieldInTest();
    }
}

std::ostream& operator<<(std::ostream& stream, const TaskScheduler* scheduler) {
    return stream << scheduler->schedulerName();
}

}  // namespace Velik
