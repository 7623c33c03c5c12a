#include "Velik/TaskGroup.h"

#include "Velik/Assert.h"
#include "Velik/TaskSchedulerRoot.h"

#include <string>
#include <utility>

namespace Velik {

namespace {

TaskSchedulerRoot* rootOf(const std::shared_ptr<TaskScheduler>& parentScheduler) {
    VELIK_ASSERT(parentScheduler != nullptr, "{}", "Need a TaskScheduler");
    return parentScheduler->root();
}

// Freezes the group's queued tasks for one pass and thaws them on every way
// out, so an exception from a task cannot leave the queues frozen.
class OnePass {
  public:
    OnePass(TaskScheduler& group, bool onePass) : group_(onePass ? &group : nullptr) {
        if (group_) {
            group_->taskRunQueuesMovePersistentToTemporary();
        }
    }
    ~OnePass() {
        if (group_) {
            group_->taskRunQueuesMoveTemporaryToPersistent();
        }
    }
    OnePass(const OnePass&) = delete;
    OnePass& operator=(const OnePass&) = delete;

  private:
    TaskScheduler* group_;
};

}  // namespace

// --- ParentTask ---

TaskGroup::ParentTask::ParentTask(TaskGroup* group, TaskScheduler* parentScheduler,
                                  TaskPriority priority)
    : Task(parentScheduler, priority, "TaskGroup;" + group->schedulerName().str()),
      taskGroup_(group) {}

TaskGroup::ParentTask::ParentTask(TaskGroup* group, std::shared_ptr<TaskScheduler> parentScheduler,
                                  TaskPriority priority)
    : Task(std::move(parentScheduler), priority, "TaskGroup;" + group->schedulerName().str()),
      taskGroup_(group) {}

std::shared_ptr<TaskGroup> TaskGroup::ParentTask::taskGroup() const {
    if (!taskGroup_) {
        return nullptr;
    }
    return std::static_pointer_cast<TaskGroup>(taskGroup_->weak_from_this().lock());
}

void TaskGroup::ParentTask::taskExecute() {
    // Held for the whole run: the last reference may go with a task of the
    // group while it runs.
    const std::shared_ptr<TaskGroup> group = taskGroup();
    if (!group) {
        return;
    }
    const bool onePass = !group->tasksPermittedMultipleRuns();
    std::uint32_t count = 0;
    {
        OnePass pass(*group, onePass);
        while (group->schedulerHasRunnableTasks()) {
            ++count;
            // Each group run runs one task and queues this task again.
            group->handleSchedulerRun();
            // A suspended root runs nothing; spinning out the quantum on
            // ignored runs would only flood the history.
            if (taskShouldYield() || group->root()->suspended()) {
                break;
            }
        }
    }
    const std::uint32_t waiting = group->runnableTaskCount();
    taskWorkCountInc(count);
    taskWorkPendingIs(waiting);
    const TaskTimePoint now = taskSteadyNow();
    if (waiting == 0) {
        group->schedulerHasRunnableTasksIs(false, now);
        unscheduleTaskPrivate(now);
    } else if (!onePass) {
        VELIK_CLASS_ASSERT(taskScheduled(), "{}", "TaskGroup parentTask should be scheduled.");
        VELIK_CLASS_ASSERT(group->schedulerHasRunnableTasks(), "{}",
                           "The TaskGroup should have runnable tasks");
    } else {
        // A pass that ran its whole batch ended by finding it empty, which
        // left the group idle; the tasks left waiting still need a run.
        scheduleTask();
        group->schedulerHasRunnableTasksIs(true, now);
    }
}

// --- TaskGroup ---

TaskGroup::TaskGroup(std::string_view name, TaskPriority priority, bool taskGroupPriorityEnforced,
                     std::shared_ptr<TaskScheduler> parentScheduler)
    : TaskScheduler(name, rootOf(parentScheduler), rootOf(parentScheduler)->history()),
      parentScheduler_(std::move(parentScheduler)),
      taskGroupPriority_(priority),
      taskGroupPriorityEnforced_(taskGroupPriorityEnforced) {
    defaultTaskQuantumIs(parentScheduler_->defaultTaskQuantum());
    root()->registerScheduler(this);
    try {
        parentTask_ = std::make_shared<ParentTask>(this, parentScheduler_, priority);
    } catch (...) {
        // Refused by the scheduler above (an enforced priority there): the
        // root must not keep a group that was never made.
        root()->unregisterScheduler(this);
        throw;
    }
}

TaskGroup::TaskGroup(std::string_view name, TaskPriority priority, bool taskGroupPriorityEnforced,
                     TaskScheduler* parentScheduler)
    : TaskGroup(name, priority, taskGroupPriorityEnforced,
                parentScheduler ? parentScheduler->shared_from_this() : nullptr) {}

TaskGroup::~TaskGroup() {
    taskGroupForceYieldInTestIs(false);
    root()->unregisterScheduler(this);
    parentTask_->taskGroup_ = nullptr;
    parentTask_.reset();
    parentScheduler_.reset();
}

void TaskGroup::requestSchedulerRun() {
    parentTask_->scheduleTask();
}

void TaskGroup::handleTaskForceYieldInTest() {
    parentTask_->taskForceYieldInTestIs(taskGroupForceYieldInTest_ ||
                                        taskForceYieldInTestCount() != 0);
}

void TaskGroup::taskRegister(TaskImpl* task) {
    VELIK_CLASS_ASSERT(!taskGroupPriorityEnforced_ || task->taskPriority() == taskGroupPriority_,
                       "taskPriority( {} ) != taskGroupPriority( {} )", task->taskPriority(),
                       taskGroupPriority_);
    TaskScheduler::taskRegister(task);
}

TaskTimeDuration TaskGroup::taskGroupQuantum() const {
    return parentTask_->taskQuantum();
}

void TaskGroup::taskGroupQuantumIs(TaskTimeDuration quantum) {
    parentTask_->taskQuantumIs(quantum);
}

void TaskGroup::taskGroupQuantumNoCheckIs(TaskTimeDuration quantum) {
    parentTask_->taskQuantumNoCheckIs(quantum);
}

void TaskGroup::taskGroupForceYieldInTestIs(bool on) {
    if (on == taskGroupForceYieldInTest_) {
        return;
    }
    taskGroupForceYieldInTest_ = on;
    // The parent task's own forced yield reports the change to the
    // scheduler above, as any task's does.
    handleTaskForceYieldInTest();
}

bool TaskGroup::parentTaskScheduled() const {
    return parentTask_->taskScheduled();
}

std::uint32_t TaskGroup::parentTaskRunCount() const {
    return parentTask_->taskRunCount();
}

void TaskGroup::taskGroupRunFromTest() {
    // Keeps the parent task alive should the run end the group.
    const std::shared_ptr<ParentTask> parent = parentTask_;
    parent->taskRunFromTest();
}

std::shared_ptr<TaskGroup> TaskGroupIs(std::string_view name, TaskPriority priority,
                                       bool taskGroupPriorityEnforced,
                                       std::shared_ptr<TaskScheduler> parentScheduler) {
    return std::make_shared<TaskGroup>(name, priority, taskGroupPriorityEnforced,
                                       std::move(parentScheduler));
}

std::shared_ptr<TaskGroup> TaskGroupIs(std::string_view name, TaskPriority priority,
                                       bool taskGroupPriorityEnforced,
                                       TaskScheduler* parentScheduler) {
    return std::make_shared<TaskGroup>(name, priority, taskGroupPriorityEnforced, parentScheduler);
}

}  // namespace Velik
