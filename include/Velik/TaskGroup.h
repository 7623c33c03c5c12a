// Task groups: a scheduler nested inside another, run as one task of it.
//
// A `TaskGroup` is a `TaskScheduler` whose tasks do not compete one by one in
// the scheduler above. They run inside one task of that scheduler, the
// group's `ParentTask`, so many small tasks share one priority slot and one
// quantum there, and the fairness rules of the scheduler above see the whole
// group as a single task. Groups nest: the scheduler above may itself be a
// group.
//
//   auto root = Velik::schedulerRootVelik();
//   auto group = Velik::TaskGroupIs("flush", Velik::TaskPriority::low, true, root);
//   auto a = std::make_shared<FlushTask>(group.get(), Velik::TaskPriority::low, "a");
//   a->scheduleTask();   // queues the group's parent task on the root
//
// Each run of the parent task runs tasks of the group, one group run
// (`handleSchedulerRun()`) at a time, until the group has nothing left to
// pick, the parent task's quantum says yield, or the root is suspended. The
// parent task is queued in the scheduler above whenever the group has work,
// and leaves the queue at the end of a run that leaves none. If the last
// waiting task leaves its queue without running (suspended, unscheduled,
// destroyed), the parent's next run finds nothing and leaves the queue then.
//
// Quanta. The group quantum (`taskGroupQuantumIs`, the parent task's
// quantum) is checked only between the runs of members: it decides whether
// the parent task picks another member, and never cuts a member's run short.
// What bounds a member's run is the member's own quantum, which its
// `taskShouldYield()` checks. A member takes its scheduler's default quantum
// when it is made, and a group's default is copied from the scheduler above
// when the group is made (20 ms unless changed), so setting only the group
// quantum leaves every member at 20 ms. One run of the parent task then
// lasts up to the group quantum plus one member's quantum, and it counts as
// a quantum violation of the parent task from twice the group quantum. Give
// the members a quantum of at most half the group's, through the group's
// default before they are made, or `taskQuantumIs` on each:
//
//   group->taskGroupQuantumIs(std::chrono::milliseconds(2));   // a group run
//   group->defaultTaskQuantumIs(std::chrono::milliseconds(1)); // members made from now
//
// Lifetime. A group is owned by shared pointers, and every task registered
// in it holds one: the group, and with it its parent task, lives on while any
// of its tasks does, even after the application has dropped its own
// references, so dropping the group handle never strands queued work. A group
// is therefore only destroyed empty. The destructor unregisters the group
// from the root and drops the parent task; if something else still holds the
// parent task and it runs later, that run does nothing.
#pragma once

#include <Velik/Task.h>
#include <Velik/TaskPriority.h>
#include <Velik/TaskScheduler.h>
#include <Velik/TaskTime.h>

#include <cstdint>
#include <memory>
#include <string_view>

namespace Velik {

class TaskGroup : public TaskScheduler {
  public:
    static constexpr const char* traceClassName = "TaskGroup";

    // The group's task in the scheduler above: named "TaskGroup;" and the
    // group's name, with the group's priority. Made by the group; each run
    // runs the group (see the file comment).
    class ParentTask : public Task {
      public:
        static constexpr const char* traceClassName = "TaskGroup::ParentTask";

        // Registers with `parentScheduler`, which must be the group's.
        ParentTask(TaskGroup* group, TaskScheduler* parentScheduler, TaskPriority priority);
        ParentTask(TaskGroup* group, std::shared_ptr<TaskScheduler> parentScheduler,
                   TaskPriority priority);

        // One run of the group. In one-pass mode the tasks queued when the
        // run starts run at most once each; those the run did not reach run
        // first next time, before tasks scheduled meanwhile. With multiple
        // runs permitted, a task that schedules itself again may run again
        // within the same run. Afterwards the parent task reports the group
        // runs made (`taskWorkCountInc`, counting the last one that found the
        // pass done) and the tasks still waiting (`taskWorkPendingIs`), and
        // stays queued exactly when the group has work left. A run after the
        // group is gone does nothing.
        void taskExecute() override;
        bool isTaskGroup() const override { return true; }

        // The group, or null once it is gone.
        std::shared_ptr<TaskGroup> taskGroup() const;

      private:
        friend class TaskGroup;

        // Cleared by the group's destructor; locked (through the group's own
        // weak self-reference) for the length of each run, so a run never
        // sees the group half destroyed.
        TaskGroup* taskGroup_;
    };

    // A group named `name` whose parent task has `priority` and runs in
    // `parentScheduler`. The group takes its default task quantum from
    // `parentScheduler` and registers with the root. When
    // `taskGroupPriorityEnforced` is set, every task of the group must have
    // `priority`. Asserts "Need a TaskScheduler" without a parent scheduler.
    TaskGroup(std::string_view name, TaskPriority priority, bool taskGroupPriorityEnforced,
              std::shared_ptr<TaskScheduler> parentScheduler);
    // The same; `parentScheduler` must be owned by a shared pointer, else this
    // throws std::bad_weak_ptr.
    TaskGroup(std::string_view name, TaskPriority priority, bool taskGroupPriorityEnforced,
              TaskScheduler* parentScheduler);
    // Turns the group's forced yield off, unregisters from the root, detaches
    // and drops the parent task (which leaves the scheduler above when it is
    // destroyed), then drops the parent scheduler.
    ~TaskGroup() override;

    // Queues the parent task in the scheduler above.
    void requestSchedulerRun() override;
    // Forced yield of the parent task follows the group's switch and the
    // forced yield of the group's tasks: on while either is on.
    void handleTaskForceYieldInTest() override;
    // Asserts "taskPriority( <p> ) != taskGroupPriority( <q> )" when the
    // priority is enforced and the task's differs.
    void taskRegister(TaskImpl* task) override;

    // --- Attributes ---

    const std::shared_ptr<ParentTask>& parentTask() const { return parentTask_; }
    const std::shared_ptr<TaskScheduler>& parentScheduler() const { return parentScheduler_; }
    TaskPriority taskGroupPriority() const { return taskGroupPriority_; }
    bool taskGroupPriorityEnforced() const { return taskGroupPriorityEnforced_; }

    // The parent task's quantum: how long one run of the group may take.
    TaskTimeDuration taskGroupQuantum() const;
    // With the limits of `taskQuantumIs` / `taskQuantumNoCheckIs`.
    void taskGroupQuantumIs(TaskTimeDuration quantum);
    void taskGroupQuantumNoCheckIs(TaskTimeDuration quantum);

    // Whether a task may run more than once in one run of the parent task
    // (true at construction); false makes each run one pass over the tasks
    // queued when it starts.
    bool tasksPermittedMultipleRuns() const { return tasksPermittedMultipleRuns_; }
    void tasksPermittedMultipleRunsIs(bool permitted) { tasksPermittedMultipleRuns_ = permitted; }

    // The group's forced-yield switch for tests (off at construction): makes
    // the parent task yield at every check, and is seen by the scheduler
    // above as a task's forced yield is.
    bool taskGroupForceYieldInTest() const { return taskGroupForceYieldInTest_; }
    void taskGroupForceYieldInTestIs(bool on);

    // --- The parent task ---

    bool parentTaskScheduled() const;
    std::uint32_t parentTaskRunCount() const;
    // Runs the parent task once, outside the scheduler above.
    void taskGroupRunFromTest();

  private:
    std::shared_ptr<ParentTask> parentTask_;
    std::shared_ptr<TaskScheduler> parentScheduler_;
    TaskPriority taskGroupPriority_;
    bool taskGroupPriorityEnforced_;
    bool taskGroupForceYieldInTest_ = false;
    bool tasksPermittedMultipleRuns_ = true;
};

// A new group owned by a shared pointer; arguments as the constructor's.
std::shared_ptr<TaskGroup> TaskGroupIs(std::string_view name, TaskPriority priority,
                                       bool taskGroupPriorityEnforced,
                                       std::shared_ptr<TaskScheduler> parentScheduler);
std::shared_ptr<TaskGroup> TaskGroupIs(std::string_view name, TaskPriority priority,
                                       bool taskGroupPriorityEnforced,
                                       TaskScheduler* parentScheduler);

}  // namespace Velik
