// The scheduler's statistics: collecting task records, the completed-task
// table, queue summaries, and resetting (at once or in slices).
#include "Velik/Assert.h"
#include "Velik/Fmtrace.h"
#include "Velik/RunHistograms.h"
#include "Velik/TaskScheduler.h"
#include "Velik/TaskSchedulerQueueStats.h"
#include "Velik/TaskStat.h"

#include <utility>

namespace Velik {

namespace {

TaskPriority priorityAt(std::size_t index) {
    return static_cast<TaskPriority>(index);
}

}  // namespace

// A low-priority task of the scheduler it resets; not kept among completed
// tasks, since it is an artefact of asking for a reset.
class TaskScheduler::ResetStatsTask : public Task {
  public:
    explicit ResetStatsTask(TaskScheduler* scheduler)
        : Task(scheduler, TaskPriority::low, scheduler->schedulerName().str() + ";ResetStats") {
        includeInCompletedTaskIs(false);
    }

    void taskExecute() override { scheduler()->handleResetStatsTaskRun(); }

    // The last slice releases the task; outside the scheduler's run nothing
    // else would hold it until the run ends.
    void taskRunFromTest() override {
        const std::shared_ptr<_TaskBase> self = shared_from_this();
        Task::taskRunFromTest();
    }
};

// --- Collecting ---

TaskSchedulerQueueStats TaskScheduler::queueStats() const {
    TaskSchedulerQueueStats stats;
    for (std::size_t i = 0; i < taskPriorityCount; ++i) {
        const TaskPriority p = priorityAt(i);
        TaskSchedulerPriorityStats entry;
        entry.priority = p;
        entry.runnableTasks = runnableTaskCount(p);
        entry.idleTasks = tasksPerPriority(p) - entry.runnableTasks;
        entry.completedTasks = completedTasksPerPriority(p);
        entry.totalRunCount = runTaskCount(p);
        const bool inserted = stats.emplace(p, entry).second;
        VELIK_CLASS_ASSERT(inserted, "Priority: {} insert failed", p);
    }
    return stats;
}

std::uint32_t TaskScheduler::getTaskStats(std::vector<TaskStat>* out, bool includeNoRuns) const {
    std::size_t registered = 0;
    for (std::uint32_t count : tasksPerPriority_) {
        registered += count;
    }
    out->reserve(out->size() + registered);
    std::uint32_t skipped = 0;
    for (const TaskImpl& task : tasks_) {  // bookmarks are skipped
        if (!includeNoRuns && task.taskRunCount() == 0) {
            ++skipped;
        } else {
            out->push_back(task.getStats());
        }
    }
    out->shrink_to_fit();
    return skipped;
}

const TaskScheduler::CompletedTaskStats& TaskScheduler::completedTaskStats() const {
    static const CompletedTaskStats none;
    return completedTaskStats_ ? *completedTaskStats_ : none;
}

void TaskScheduler::getCompletedTaskStats(std::vector<TaskStat>* out, bool includeNoRuns) const {
    const CompletedTaskStats& completed = completedTaskStats();
    out->reserve(out->size() + completed.size());
    for (const auto& [name, stat] : completed) {
        if (includeNoRuns || stat.taskRunCount() != 0) {
            out->push_back(stat);
        }
    }
    out->shrink_to_fit();
}

// --- Completed tasks ---

void TaskScheduler::completedTaskStatsInc(const ConstStringRef& name, TaskStat stat) {
    if (!completedTaskStats_) {
        completedTaskStats_ = CompletedTaskStatsOwner(
            new CompletedTaskStats, [](CompletedTaskStats* table) { delete table; });
    }
    auto [entry, inserted] = completedTaskStats_->try_emplace(name, stat);
    if (!inserted) {
        entry->second += stat;
    }
}

void TaskScheduler::updateCompletedTaskStats(TaskImpl* task) {
    if (!task->includeInCompletedTask()) {
        return;
    }
    const TaskPriority p = task->taskPriority();
    VELIK_CLASS_ASSERT(indexOf(p) < taskPriorityCount, "{}", static_cast<unsigned>(p));
    TaskStat stat = task->getStats();
    stat.taskNameIs(task->taskStatsName());
    VELIK_CLASS_ASSERT(stat.taskCompletedCount() == 0, "Task: {} completedCount: {}",
                       task->taskDisplayName(), stat.taskCompletedCount());
    stat.taskCompletedCountIs(1);
    completedTaskStatsInc(task->taskStatsName(), std::move(stat));
    const std::uint32_t registered = tasksPerPriority(p);
    VELIK_CLASS_ASSERT(registered != 0, "Task: {} tasksPerPriority: {}", task->taskDisplayName(),
                       registered);
    tasksPerPriorityDec(p);
    completedTasksPerPriorityInc(p);
}

// --- Resetting ---

TaskImpl* TaskScheduler::resetStatsTaskForTest() const {
    return resetStatsTask_.get();
}

void TaskScheduler::clearStatsCommon() {
    for (TaskRunQueue& queue : taskRunQueues_) {
        queue.runCountRestart();
    }
    maxSchedulerSlip_ = TaskTimeDuration(0);
    if (completedTaskStats_) {
        completedTaskStats_->clear();
    }
    completedTasksPerPriority_.fill(0);
    if (runHistograms_) {
        runHistograms_->clear();
    }
}

void TaskScheduler::clearStats() {
    TaskList::unlinkBookmark(resetStatsBookmark_);
    resetStatsTask_.reset();
    clearStatsCommon();
    for (TaskImpl& task : tasks_) {
        task.taskResetStats();
    }
}

void TaskScheduler::resetStats() {
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 5, "{} Reset statistics{}", schedulerName_,
                resetStatsTask_ ? ", starting over" : "");
    TaskList::unlinkBookmark(resetStatsBookmark_);
    resetStatsTask_ = std::make_shared<ResetStatsTask>(this);
    resetStatsTask_->scheduleTask();
}

void TaskScheduler::handleResetStatsTaskRun() {
    ResetStatsTask& self = *resetStatsTask_;
    TaskList::Iterator it = resetStatsBookmark_.isLinked()
                                ? TaskList::Iterator(tasks_, &resetStatsBookmark_)
                                : tasks_.begin();
    TaskList::unlinkBookmark(resetStatsBookmark_);
    std::uint64_t reset = 0;
    while (!it.atEnd()) {
        TaskImpl& task = *it;
        ++it;
        task.taskResetStats();
        ++reset;
        if (reset > 1 && !it.atEnd() && self.taskShouldYield()) {
            tasks_.insertBefore(*it.node(), resetStatsBookmark_);
            self.taskWorkCountInc(reset);
            self.scheduleTask();
            return;
        }
    }
    self.taskWorkCountInc(reset);
    clearStatsCommon();
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 5, "{} Reset statistics done", schedulerName_);
    // The scheduler's run (or `taskRunFromTest`) still holds the task.
    resetStatsTask_.reset();
}

}  // namespace Velik
