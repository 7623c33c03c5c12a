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
#include "report/JsonWriter.h"

#include <algorithm>
#include <limits>
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
    member(w, "name", stat.taskNameRef().view());
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

namespace {

using SortedStats = std::vector<const TaskStat*>;

// Largest total run time first.
std::shared_ptr<const SortedStats> sortedByRunTime(const std::vector<TaskStat>& stats) {
    auto sorted = std::make_shared<SortedStats>();
    sorted->reserve(stats.size());
    for (const TaskStat& stat : stats) {
        sorted->push_back(&stat);
    }
    std::sort(sorted->begin(), sorted->end(), [](const TaskStat* a, const TaskStat* b) {
        return a->taskTotalRunTime() > b->taskTotalRunTime();
    });
    return sorted;
}

// A task list: its opening, its records in slices, its closing.
void appendTaskListSteps(TaskSchedulerSnapshot::SlicedRender::Steps& steps, const char* key,
                         const std::vector<TaskStat>& stats, std::uint32_t skipped, bool completed,
                         std::size_t recordsPerSlice) {
    std::shared_ptr<const SortedStats> sorted = sortedByRunTime(stats);
    steps.push_back({[key](TaskSchedulerPrintContext& context) {
                         Impl::JsonWriter& w = context.writer();
                         jsonKey(w, key);
                         w.StartObject();
                         jsonKey(w, "tasks");
                         w.StartArray();
                     },
                     0});
    for (std::size_t from = 0; from < sorted->size();) {
        const std::size_t to = from + std::min(recordsPerSlice, sorted->size() - from);
        steps.push_back({[sorted, from, to, completed](TaskSchedulerPrintContext& context) {
                             for (std::size_t i = from; i < to; ++i) {
                                 renderTask(context.writer(), *(*sorted)[i], completed);
                             }
                         },
                         to - from});
        from = to;
    }
    steps.push_back({[skipped](TaskSchedulerPrintContext& context) {
                         Impl::JsonWriter& w = context.writer();
                         w.EndArray();
                         member(w, "skipped", std::uint64_t{skipped});
                         w.EndObject();
                     },
                     0});
}

}  // namespace

void renderJsonTasks(TaskSchedulerPrintContext& context, const char* key,
                     const std::vector<TaskStat>& stats, std::uint32_t skipped, bool completed) {
    TaskSchedulerSnapshot::SlicedRender::Steps steps;
    appendTaskListSteps(steps, key, stats, skipped, completed, stats.size());
    for (const auto& step : steps) {
        step.render(context);
    }
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
        if (!event.name.view().empty()) {
            member(w, "eventId", event.name.view());
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
    // The same parts as a sliced render, in one go: one slice per list.
    SlicedRender::Steps steps;
    SlicedRender::appendSchedulerSteps(steps, *this, std::numeric_limits<std::size_t>::max());
    for (const auto& step : steps) {
        step.render(context);
    }
}

// --- Sliced rendering ---

void TaskSchedulerSnapshot::SlicedRender::appendSchedulerSteps(Steps& steps,
                                                               const TaskSchedulerSnapshot& s,
                                                               std::size_t recordsPerSlice) {
    steps.push_back({[&s](TaskSchedulerPrintContext& context) {
                         Impl::JsonWriter& w = context.writer();
                         w.StartObject();
                         member(w, "schedulerName", std::string_view(s.schedulerName));
                         if (s.displayOrder != noDisplayOrder) {
                             member(w, "displayOrder", std::uint64_t{s.displayOrder});
                         }
                         member(w, "isRootScheduler", s.isRootScheduler);
                         renderPriorityStats(w, s.queueStats);
                         member(w, "maxSchedulerSlip", s.maxSchedulerSlip);
                     },
                     0});
    appendTaskListSteps(steps, "tasks", s.tasks, s.skippedTasks, false, recordsPerSlice);
    if (!s.completedTasks.empty()) {
        appendTaskListSteps(steps, "completedTasks", s.completedTasks, 0, true, recordsPerSlice);
    }
    steps.push_back({[](TaskSchedulerPrintContext& context) {
                         jsonKey(context.writer(), "subSchedulers");
                         context.writer().StartObject();
                     },
                     0});
    for (const auto& entry : s.subSchedulers) {
        const std::string& key = entry.first;
        steps.push_back(
            {[&key](TaskSchedulerPrintContext& context) { jsonString(context.writer(), key); }, 0});
        appendSchedulerSteps(steps, *entry.second, recordsPerSlice);
    }
    steps.push_back({[&s](TaskSchedulerPrintContext& context) {
                         context.writer().EndObject();  // subSchedulers
                         if (s.history) {
                             s.history->renderJson(context);
                         }
                         context.writer().EndObject();
                     },
                     0});
}

TaskSchedulerSnapshot::SlicedRender::SlicedRender(
    std::shared_ptr<const TaskSchedulerSnapshot> snapshot, std::size_t recordsPerSlice)
    : snapshot_(std::move(snapshot)), recordsPerSlice_(std::max<std::size_t>(recordsPerSlice, 1)) {
    const TaskSchedulerSnapshot& s = *snapshot_;
    steps_.push_back({[&s](TaskSchedulerPrintContext& context) {
                          jsonString(context.writer(), s.schedulerName);
                      },
                      0});
    appendSchedulerSteps(steps_, s, recordsPerSlice_);
}

bool TaskSchedulerSnapshot::SlicedRender::renderSlice(TaskSchedulerPrintContext& context) {
    std::size_t records = 0;
    while (next_ < steps_.size() && records + steps_[next_].records <= recordsPerSlice_) {
        records += steps_[next_].records;
        steps_[next_++].render(context);
    }
    return !done();
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
