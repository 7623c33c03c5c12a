// Taking snapshots of schedulers and rendering them as JSON.
#include "Velik/TaskSchedulerSnapshot.h"

#include "Velik/Assert.h"
#include "Velik/Exception.h"
#include "Velik/FdToStream.h"
#include "Velik/TaskGroup.h"
#include "Velik/TaskPriority.h"
#include "Velik/TaskScheduler.h"
#include "Velik/TaskSchedulerPrintContext.h"
#include "Velik/TaskSchedulerRoot.h"
#include "scheduler/JsonWriter.h"

#include <algorithm>
#include <sstream>

namespace Velik {

namespace {

using Impl::jsonKey;
using Impl::jsonString;

double seconds(TaskTimeDuration d) {
    return static_cast<double>(d.count()) / 1e9;
}

inline void member(Impl::JsonWriter& w, std::string_view key, bool value) {
    jsonKey(w, key);
    w.Bool(value);
}
inline void member(Impl::JsonWriter& w, std::string_view key, std::uint64_t value) {
    jsonKey(w, key);
    w.Uint64(value);
}
inline void member(Impl::JsonWriter& w, std::string_view key, double value) {
    jsonKey(w, key);
    w.Double(value);
}
inline void member(Impl::JsonWriter& w, std::string_view key, std::string_view value) {
    jsonKey(w, key);
    jsonString(w, value);
}

void renderPriorityStats(Impl::JsonWriter& w, const TaskSchedulerQueueStats& queueStats) {
    jsonKey(w, "priorityStats");
    w.StartObject();
    for (const auto& [priority, stats] : queueStats) {
        jsonKey(w, toStrep(priority));
        w.StartObject();
        member(w, "runnableTasks", std::uint64_t{stats.runnableTasks});
        member(w, "idleTasks", std::uint64_t{stats.idleTasks});
        member(w, "completedTasks", std::uint64_t{stats.completedTasks});
        member(w, "totalRunCount", stats.totalRunCount);
        w.EndObject();
    }
    w.EndObject();
}

void renderTask(Impl::JsonWriter& w, const TaskStat& stat, bool completed) {
    const TaskStatus status = stat.taskStatus();
    w.StartObject();
    member(w, "name", std::string_view(stat.taskNameRef().str()));
    if (!completed) {
        char address[24];  // "0x" and 16 digits: no allocation per task
        const auto end = fmt::format_to_n(address, sizeof address, "{:#x}", stat.taskKey().value());
        member(w, "address", std::string_view(address, end.size));
    }
    member(w, "priority", std::string_view(toStrep(stat.taskPriority())));
    if (status.taskIsTaskGroup()) {
        member(w, "subScheduler", std::string_view(subSchedulerKey(stat)));
    }
    member(w, "onRunQueue", status.taskOnRunQueue());
    member(w, "currentlyRunning", status.taskCurrentlyRunning());
    member(w, "suspended", status.taskSuspended());
    member(w, "hasTimer", status.taskTimer());
    member(w, "timerRunning", status.taskTimerRunning());
    member(w, "runCount", std::uint64_t{stat.taskRunCount()});
    member(w, "totalRunTime", seconds(stat.taskTotalRunTime()));
    member(w, "lastSchedulingLatency", seconds(stat.taskLastSchedulingLatency()));
    member(w, "schedulingLatencyHighWaterMark", seconds(stat.taskSchedulingLatencyHighWaterMark()));
    member(w, "qv200", std::uint64_t{stat.taskQuantumViolation200()});
    member(w, "qv500", std::uint64_t{stat.taskQuantumViolation500()});
    member(w, "maxMs",
           std::uint64_t{static_cast<unsigned>(seconds(stat.taskRunTimeHighWaterMark()) * 1000)});
    if (completed) {
        member(w, "completedCount", std::uint64_t{stat.taskCompletedCount()});
    }
    if (stat.taskWorkCountHighWaterMark().hasValue()) {
        jsonKey(w, "workCount");
        w.StartObject();
        member(w, "total", stat.taskWorkCountTotal());
        member(w, "decayingAvg", static_cast<double>(stat.taskWorkCountDecayAvg()));
        member(w, "highwater", std::uint64_t{stat.taskWorkCountHighWaterMark().value()});
        w.EndObject();
    }
    if (stat.taskWorkPendingHighWaterMark().hasValue()) {
        jsonKey(w, "workPending");
        w.StartObject();
        member(w, "pending", std::uint64_t{stat.taskWorkPending()});
        member(w, "highwater", std::uint64_t{stat.taskWorkPendingHighWaterMark().value()});
        w.EndObject();
    }
    w.EndObject();
}

}  // namespace

std::string subSchedulerKey(const TaskStat& stat) {
    if (!stat.taskStatus().taskIsTaskGroup()) {
        AssertException::throwException(fmt::format("{} is not TaskGroup", stat.taskNameRef()));
    }
    return fmt::format("{}-{}", stat.taskNameRef(), stat.taskKey().toStrep());
}

void renderJsonTasks(TaskSchedulerPrintContext& context, const char* key,
                     const std::vector<TaskStat>& stats, std::uint32_t skipped, bool completed) {
    std::vector<const TaskStat*> sorted;
    sorted.reserve(stats.size());
    for (const TaskStat& stat : stats) {
        sorted.push_back(&stat);
    }
    std::sort(sorted.begin(), sorted.end(), [](const TaskStat* a, const TaskStat* b) {
        return a->taskTotalRunTime() > b->taskTotalRunTime();
    });
    Impl::JsonWriter& w = context.writer();
    jsonKey(w, key);
    w.StartObject();
    jsonKey(w, "tasks");
    w.StartArray();
    for (const TaskStat* stat : sorted) {
        renderTask(w, *stat, completed);
    }
    w.EndArray();
    member(w, "skipped", std::uint64_t{skipped});
    w.EndObject();
}

// --- History ---

TaskSchedulerSnapshot::History::History(const TaskSchedulerHistory& history)
    : historyEntryCount_(history.capacity()),
      events_(history.events().begin(), history.events().end()) {}

void TaskSchedulerSnapshot::History::renderJson(TaskSchedulerPrintContext& context) const {
    Impl::JsonWriter& w = context.writer();
    jsonKey(w, "history");
    w.StartObject();
    member(w, "historyEntryCount", std::uint64_t{historyEntryCount_});
    jsonKey(w, "history");
    w.StartArray();
    for (const TaskSchedulerHistory::Event& event : events_) {
        w.StartObject();
        jsonKey(w, "nsSinceBoot");
        w.Int64(event.time.time_since_epoch().count());
        member(w, "eventType", std::string_view(event.eventTypeDisplay()));
        if (!event.name.str().empty()) {
            member(w, "eventId", std::string_view(event.displayName()));
        }
        w.EndObject();
    }
    w.EndArray();
    w.EndObject();
}

// --- Scheduler snapshots ---

void TaskSchedulerSnapshot::renderJson(TaskSchedulerPrintContext& context) const {
    jsonString(context.writer(), schedulerName);
    renderJsonImpl(context);
}

void TaskSchedulerSnapshot::renderJsonImpl(TaskSchedulerPrintContext& context) const {
    Impl::JsonWriter& w = context.writer();
    w.StartObject();
    member(w, "schedulerName", std::string_view(schedulerName));
    if (displayOrder != noDisplayOrder) {
        member(w, "displayOrder", std::uint64_t{displayOrder});
    }
    member(w, "isRootScheduler", isRootScheduler);
    renderPriorityStats(w, queueStats);
    member(w, "maxSchedulerSlip", maxSchedulerSlip);
    renderJsonTasks(context, "tasks", tasks, skippedTasks, false);
    if (!completedTasks.empty()) {
        renderJsonTasks(context, "completedTasks", completedTasks, 0, true);
    }
    jsonKey(w, "subSchedulers");
    w.StartObject();
    for (const auto& [key, sub] : subSchedulers) {
        jsonString(w, key);
        sub->renderJsonImpl(context);
    }
    w.EndObject();
    if (history) {
        history->renderJson(context);
    }
    w.EndObject();
}

// --- TaskScheduler ---

std::shared_ptr<TaskSchedulerSnapshot> TaskScheduler::snapshot(bool includeNoRuns,
                                                               bool includeCompleted,
                                                               bool includeHistory) const {
    auto snap = std::make_shared<TaskSchedulerSnapshot>();
    snap->schedulerName = schedulerName_.str();
    snap->isRootScheduler = root_ == this;
    snap->queueStats = queueStats();
    snap->maxSchedulerSlip = seconds(maxSchedulerSlip_);
    snap->skippedTasks = getTaskStats(&snap->tasks, includeNoRuns);
    if (includeCompleted) {
        getCompletedTaskStats(&snap->completedTasks, includeNoRuns);
    }
    if (includeHistory && snap->isRootScheduler) {
        snap->history.emplace(*history_);
    }
    for (const TaskImpl& task : tasks_) {
        if (!task.isTaskGroup()) {
            continue;
        }
        const auto& parent = static_cast<const TaskGroup::ParentTask&>(task);
        if (std::shared_ptr<TaskGroup> group = parent.taskGroup()) {
            snap->subSchedulers.emplace(subSchedulerKey(parent.getStats()),
                                        group->snapshot(includeNoRuns, includeCompleted, false));
        }
    }
    return snap;
}

std::unique_ptr<TaskSchedulerPrintContext> TaskScheduler::PrintContextIs(std::ostream& stream) {
    return std::make_unique<TaskSchedulerPrintContext>(stream);
}

std::unique_ptr<TaskSchedulerPrintContext> TaskScheduler::PrintContextIs(int fd, bool closeFd) {
    return std::make_unique<TaskSchedulerPrintContext>(std::make_unique<FdToStream>(fd, closeFd));
}

void TaskScheduler::statsRenderJson(std::ostream& stream, bool includeNoRuns, bool includeCompleted,
                                    bool includeHistory) const {
    auto snap = snapshot(includeNoRuns, includeCompleted, includeHistory);
    auto context = PrintContextIs(stream);
    snap->renderJson(*context);
}

std::string TaskScheduler::statsRenderJsonToString(bool includeNoRuns, bool includeCompleted,
                                                   bool includeHistory) const {
    std::ostringstream out;
    statsRenderJson(out, includeNoRuns, includeCompleted, includeHistory);
    return std::move(out).str();
}

void TaskScheduler::statsRenderJsonToBlockingFdForTest(int fd, bool includeNoRuns,
                                                       bool includeCompleted,
                                                       bool includeHistory) const {
    auto snap = snapshot(includeNoRuns, includeCompleted, includeHistory);
    auto context = PrintContextIs(fd, false);
    snap->renderJson(*context);
}

}  // namespace Velik
