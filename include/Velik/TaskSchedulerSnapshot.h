// A scheduler's statistics frozen for rendering as JSON.
//
// `TaskScheduler::snapshot` copies the queue summaries, the maximum slip, the
// task records (live and completed), the root's event history and, through
// its task groups, the snapshots of the schedulers nested in it. The copy can
// be rendered later, while the scheduler goes on running:
//
//   auto snap = root->snapshot(false, true, true);
//   auto context = Velik::TaskScheduler::PrintContextIs(std::cout);
//   snap->renderJson(*context);
//
// Document shape (members in this order; "?" marks optional ones):
//
//   {"schedulers": {<name>: {
//      "schedulerName", "displayOrder"?, "isRootScheduler",
//      "priorityStats": {<priority>: {"runnableTasks", "idleTasks",
//                                     "completedTasks", "totalRunCount"}},
//      "maxSchedulerSlip",
//      "tasks": {"tasks": [<task>...], "skipped"},
//      "completedTasks"?: {"tasks": [<task>...], "skipped"},
//      "subSchedulers": {<subSchedulerKey>: {<scheduler>}},
//      "history"?: {"historyEntryCount", "history": [{"nsSinceBoot",
//                                                      "eventType", "eventId"?}]}}}}
//
//   <task>: "name", "address" (live only), "priority", "subScheduler"?
//   (task groups), "onRunQueue", "currentlyRunning", "suspended", "hasTimer",
//   "timerRunning", "runCount", "totalRunTime", "lastSchedulingLatency",
//   "schedulingLatencyHighWaterMark" (seconds), "qv200", "qv500", "maxMs",
//   "completedCount" (completed only), "workCount"?: {"total",
//   "decayingAvg", "highwater"}, "workPending"?: {"pending", "highwater"}.
//
// Task lists are sorted by total run time, largest first. Names may hold any
// bytes: the output is valid JSON whatever they are.
//
// A snapshot holds interned names of its thread: keep and drop it on the
// scheduler's thread.
#pragma once

#include <Velik/TaskSchedulerHistory.h>
#include <Velik/TaskSchedulerQueueStats.h>
#include <Velik/TaskStat.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Velik {

class TaskSchedulerPrintContext;

class TaskSchedulerSnapshot {
  public:
    static constexpr const char* traceClassName = "TaskSchedulerSnapshot";
    static constexpr std::uint32_t noDisplayOrder = std::numeric_limits<std::uint32_t>::max();

    // A copy of the event history, newest first.
    class History {
      public:
        explicit History(const TaskSchedulerHistory& history);

        // The "history" member.
        void renderJson(TaskSchedulerPrintContext& context) const;

        std::uint32_t historyEntryCount() const { return historyEntryCount_; }
        const std::vector<TaskSchedulerHistory::Event>& events() const { return events_; }

      private:
        std::uint32_t historyEntryCount_;
        std::vector<TaskSchedulerHistory::Event> events_;
    };

    // Renders a snapshot's member (the bytes `renderJson` writes) a slice at a
    // time, so that a snapshot of many tasks need not be rendered in one task
    // run:
    //
    //   TaskSchedulerSnapshot::SlicedRender render(root->snapshot(true, true, true), 500);
    //   while (render.renderSlice(*context)) {
    //       ...  // hand on what the context's stream holds, let others run
    //   }
    class SlicedRender {
      public:
        // One part of the document and the number of task records in it.
        struct Step {
            std::function<void(TaskSchedulerPrintContext&)> render;
            std::size_t records;
        };
        using Steps = std::vector<Step>;

        // Task lists are cut into slices of at most `recordsPerSlice` records.
        SlicedRender(std::shared_ptr<const TaskSchedulerSnapshot> snapshot,
                     std::size_t recordsPerSlice);

        // Renders the next parts, in order, up to `recordsPerSlice` task
        // records (the small parts between lists go with them). Returns
        // whether anything is left.
        bool renderSlice(TaskSchedulerPrintContext& context);
        bool done() const { return next_ == steps_.size(); }

        // Appends the parts of `snapshot`'s scheduler object (without its
        // key); the snapshot must outlive them.
        static void appendSchedulerSteps(Steps& steps, const TaskSchedulerSnapshot& snapshot,
                                         std::size_t recordsPerSlice);

      private:
        std::shared_ptr<const TaskSchedulerSnapshot> snapshot_;
        std::size_t recordsPerSlice_;
        Steps steps_;
        std::size_t next_ = 0;
    };

    // Sub-scheduler snapshots by `subSchedulerKey` of their group's task.
    using SubSchedulers = std::map<std::string, std::shared_ptr<const TaskSchedulerSnapshot>>;

    // The member for this scheduler: its name as key, then its object.
    void renderJson(TaskSchedulerPrintContext& context) const;
    // The scheduler object alone.
    void renderJsonImpl(TaskSchedulerPrintContext& context) const;

    std::string schedulerName;
    std::uint32_t displayOrder = noDisplayOrder;
    bool isRootScheduler = false;
    TaskSchedulerQueueStats queueStats;
    double maxSchedulerSlip = 0.0;  // seconds
    std::vector<TaskStat> tasks;
    std::uint32_t skippedTasks = 0;  // left out for having no runs
    std::vector<TaskStat> completedTasks;
    std::optional<History> history;
    SubSchedulers subSchedulers;
};

// One task list object under `key`: "tasks", sorted by total run time
// (largest first), then "skipped". `completed` selects the completed form
// ("completedCount", no "address").
void renderJsonTasks(TaskSchedulerPrintContext& context, const char* key,
                     const std::vector<TaskStat>& stats, std::uint32_t skipped, bool completed);

// The key of a task group's sub-scheduler: the record's name, "-", and the
// task key. For a record of another kind of task this is an assertion
// failure, "<name> is not TaskGroup", raised through
// `AssertException::throwException` (which aborts unless assertions throw).
std::string subSchedulerKey(const TaskStat& stat);

}  // namespace Velik
