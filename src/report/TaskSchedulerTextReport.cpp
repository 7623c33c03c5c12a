// The text statistics report, and the root's entry points to it.
#include "Velik/TaskSchedulerTextReport.h"

#include "Velik/FdToStream.h"
#include "Velik/TaskSchedulerRoot.h"

#include <boost/format.hpp>

#include <algorithm>
#include <iostream>
#include <limits>
#include <sstream>

namespace Velik {

namespace {

using boost::format;

double seconds(TaskTimeDuration d) {
    return static_cast<double>(d.count()) / 1e9;
}

// A mark as "%u", or blank when it has no value.
std::string markText(TaskMaybeU32 mark) {
    return mark.hasValue() ? std::to_string(mark.value()) : std::string();
}

void renderQueueTable(std::ostream& stream, const TaskSchedulerQueueStats& queueStats) {
    stream << format("%-8s %13s %13s %9s %15s\n") % "Priority" % "RunnableCount" % "IdleCount" %
                  "DoneCount" % "TotalRunCount"
           << "\n";
    for (const auto& [priority, s] : queueStats) {
        stream << format("%-8s %13u %13u %9u %15llu\n") % toStrep(priority) % s.runnableTasks %
                      s.idleTasks % s.completedTasks % s.totalRunCount;
    }
}

void renderLegend(std::ostream& stream, bool withCompleted) {
    const auto line = [&](const char* term, const char* text) {
        stream << format("%-17s %s\n") % term % text;
    };
    line("SP", "= Task status and priority % two characters:");
    line("   first", "  T/t for active/idle timers, * for running task or blank");
    line("   second", "  priority and runnable status, upper case for runnable");
    line("RunCount", "= Number of times task has run");
    line("TotalSec", "= Total run time in seconds");
    line("LastDelay", "= Scheduling delay last time task ran, in seconds");
    line("MaxDelay", "= Maximum scheduling delay encountered, in seconds");
    line("200% 500%", "= Number of times task used this percentage of quantum");
    line("MaxMs", "= Maximum single run time in milliseconds");
    if (withCompleted) {
        line("Completed", "= Number of times a task with this name has completed");
    }
    line("TotalWorkCount", "= Counter of total work units processed");
    line("DecayAvgWorkCount", "=    exponential decaying average of work units processed");
    line("MaxWorkCount", "=    high watermark of work units processed in one run");
    line("LastWorkPending", "= Work units pending processing");
    line("MaxWorkPending", "=    high watermark of work units pending processing");
    stream << "\n";
}

// The name as shown, then the key when keys are shown.
std::string nameColumn(const TaskStat& stat, bool showKeys,
                       const TextReportSlicedRender::NameText& nameText) {
    std::string name = nameText ? nameText(stat.taskNameRef().str()) : stat.taskName();
    return showKeys ? name + stat.taskKey().toStrep() : name;
}

// The row formats, parsed once per table: feeding a format that has been
// printed starts it over.
struct RowFormats {
    explicit RowFormats(bool completed)
        : row(completed ? "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %4u %10s %8s %6s %9s %10s"
                        : "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %10s %8s %6s %9s %10s"),
          decayAvg("%6.1f") {}
    format row;
    format decayAvg;
};

void renderTaskRow(std::ostream& stream, RowFormats& formats, const TaskStat& stat,
                   std::size_t width, bool completed, bool showKeys,
                   const TextReportSlicedRender::NameText& nameText) {
    const std::string name = nameColumn(stat, showKeys, nameText);
    const std::string padding(width - std::min(width, name.size()), ' ');
    const bool work = stat.taskWorkCountHighWaterMark().hasValue();
    const bool pending = stat.taskWorkPendingHighWaterMark().hasValue();
    format& row = formats.row;
    row % name % padding % stat.taskStatusString() % stat.taskRunCount() %
        seconds(stat.taskTotalRunTime()) % seconds(stat.taskLastSchedulingLatency()) %
        seconds(stat.taskSchedulingLatencyHighWaterMark()) % stat.taskQuantumViolation200() %
        stat.taskQuantumViolation500() %
        static_cast<unsigned>(seconds(stat.taskRunTimeHighWaterMark()) * 1000.0);
    if (completed) {
        row % stat.taskCompletedCount();
    }
    row % (work ? std::to_string(stat.taskWorkCountTotal()) : std::string()) %
        (work ? (formats.decayAvg % stat.taskWorkCountDecayAvg()).str() : std::string()) %
        (work ? markText(stat.taskWorkCountHighWaterMark()) : std::string()) %
        (pending ? std::to_string(stat.taskWorkPending()) : std::string()) %
        (pending ? markText(stat.taskWorkPendingHighWaterMark()) : std::string());
    stream << row << "\n";
}

// Largest total run time first.
std::vector<const TaskStat*> sortedByRunTime(const std::vector<TaskStat>& stats) {
    std::vector<const TaskStat*> sorted;
    sorted.reserve(stats.size());
    for (const TaskStat& stat : stats) {
        sorted.push_back(&stat);
    }
    std::sort(sorted.begin(), sorted.end(), [](const TaskStat* a, const TaskStat* b) {
        return a->taskTotalRunTime() > b->taskTotalRunTime();
    });
    return sorted;
}

std::size_t nameWidth(const std::string& title, const std::vector<const TaskStat*>& stats,
                      bool showKeys, const TextReportSlicedRender::NameText& nameText) {
    std::size_t width = title.size();
    for (const TaskStat* stat : stats) {
        const std::size_t name = nameText ? nameText(stat->taskNameRef().str()).size()
                                          : stat->taskNameRef().str().size();
        width = std::max(width, name + (showKeys ? stat->taskKey().toStrep().size() : 0));
    }
    return width;
}

void renderTableHeader(std::ostream& stream, const std::string& title, std::size_t width,
                       bool completed) {
    const std::string padding(width - title.size(), ' ');
    if (completed) {
        stream << format("%s%s %2s %10s %13s %14s %4s %4s %5s %4s %26s %20s") % title % padding %
                      "SP" % "RunCount" % "TotalSec" % "Last/Max-Delay" % "200%" % "500%" %
                      "MaxMs" % "Completed" % "Total/DecayA/Max-WorkCount" % "Last/Max-WorkPending";
    } else {
        stream << format("%s%s %2s %10s %13s %14s %4s %4s %5s %26s %20s") % title % padding % "SP" %
                      "RunCount" % "TotalSec" % "Last/Max-Delay" % "200%" % "500%" % "MaxMs" %
                      "Total/DecayA/Max-WorkCount" % "Last/Max-WorkPending";
    }
    stream << "\n";
}

}  // namespace

void statsRenderTextTasks(std::ostream& stream, const std::string& title,
                          const std::vector<TaskStat>& stats, bool completed, bool showKeys) {
    const std::vector<const TaskStat*> sorted = sortedByRunTime(stats);
    const std::size_t width = nameWidth(title, sorted, showKeys, {});
    renderTableHeader(stream, title, width, completed);
    RowFormats formats(completed);
    for (const TaskStat* stat : sorted) {
        renderTaskRow(stream, formats, *stat, width, completed, showKeys, {});
    }
}

void statsRenderTextImpl(std::ostream& stream, const TaskSchedulerQueueStats& queueStats,
                         double maxSchedulerSlip, const std::vector<TaskStat>& live,
                         std::uint32_t skipped, const std::vector<TaskStat>& completed,
                         bool showKeys) {
    TextReportSlicedRender render(queueStats, maxSchedulerSlip, live, skipped, completed, showKeys);
    while (render.renderSlice(stream, std::numeric_limits<std::size_t>::max())) {
    }
}

// --- The report a slice at a time ---

TextReportSlicedRender::TextReportSlicedRender(const TextReportData& data, bool showKeys,
                                               NameText nameText)
    : TextReportSlicedRender(data.queueStats, data.maxSchedulerSlip, data.live, data.skipped,
                             data.completed, showKeys, std::move(nameText)) {}

TextReportSlicedRender::TextReportSlicedRender(const TaskSchedulerQueueStats& queueStats,
                                               double maxSchedulerSlip,
                                               const std::vector<TaskStat>& live,
                                               std::uint32_t skipped,
                                               const std::vector<TaskStat>& completed,
                                               bool showKeys, NameText nameText)
    : queueStats_(queueStats),
      maxSchedulerSlip_(maxSchedulerSlip),
      skipped_(skipped),
      nameText_(std::move(nameText)),
      live_(makeTable("TaskName", live, false, showKeys)),
      // Keys are never shown for completed records: they name no live task.
      completed_(makeTable("TaskName (completed)", completed, true, false)) {}

TextReportSlicedRender::Table TextReportSlicedRender::makeTable(std::string title,
                                                                const std::vector<TaskStat>& stats,
                                                                bool completed,
                                                                bool showKeys) const {
    Table table;
    table.title = std::move(title);
    table.completed = completed;
    table.showKeys = showKeys;
    table.sorted = sortedByRunTime(stats);
    table.width = nameWidth(table.title, table.sorted, showKeys, nameText_);
    return table;
}

std::size_t TextReportSlicedRender::renderRows(std::ostream& stream, Table& table,
                                               std::size_t rows) const {
    const std::size_t n = std::min(rows, table.sorted.size() - table.next);
    RowFormats formats(table.completed);
    for (std::size_t i = 0; i < n; ++i, ++table.next) {
        renderTaskRow(stream, formats, *table.sorted[table.next], table.width, table.completed,
                      table.showKeys, nameText_);
    }
    return n;
}

bool TextReportSlicedRender::renderSlice(std::ostream& stream, std::size_t rows) {
    std::size_t budget = std::max<std::size_t>(rows, 1);
    while (stage_ != Stage::finished) {
        switch (stage_) {
            case Stage::head:
                renderQueueTable(stream, queueStats_);
                stream << format("Maximum scheduler slip %.6f seconds\n") % maxSchedulerSlip_
                       << "\n";
                renderLegend(stream, !completed_.sorted.empty());
                renderTableHeader(stream, live_.title, live_.width, false);
                stage_ = Stage::liveRows;
                break;
            case Stage::liveRows:
            case Stage::completedRows: {
                Table& table = stage_ == Stage::liveRows ? live_ : completed_;
                if (budget == 0 && table.next < table.sorted.size()) {
                    return true;
                }
                budget -= renderRows(stream, table, budget);
                if (table.next == table.sorted.size()) {
                    stage_ = stage_ == Stage::liveRows ? Stage::skippedLine : Stage::finished;
                }
                break;
            }
            case Stage::skippedLine:
                if (skipped_ != 0) {
                    stream << format("Skipped %u task%s with no runs\n") % skipped_ %
                                  (skipped_ == 1 ? "" : "s");
                }
                stage_ = completed_.sorted.empty() ? Stage::finished : Stage::completedHead;
                break;
            case Stage::completedHead:
                renderTableHeader(stream, completed_.title, completed_.width, true);
                stage_ = Stage::completedRows;
                break;
            case Stage::finished:
                break;
        }
    }
    return false;
}

TextReportData gatherTextReport(const TaskSchedulerRoot& root, bool includeNoRuns,
                                bool includeCompleted) {
    TextReportData data;
    for (const TaskScheduler* scheduler : root.schedulers()) {
        data.skipped += scheduler->getTaskStats(&data.live, includeNoRuns);
        if (includeCompleted) {
            scheduler->getCompletedTaskStats(&data.completed, includeNoRuns);
        }
    }
    data.queueStats = root.queueStatsRoot();
    data.maxSchedulerSlip = seconds(root.maxSchedulerSlip());
    return data;
}

// --- The root's entry points ---

TaskSchedulerQueueStats TaskSchedulerRoot::queueStatsRoot() const {
    TaskSchedulerQueueStats merged;
    for (const TaskScheduler* scheduler : schedulers()) {
        merged += scheduler->queueStats();
    }
    return merged;
}

void TaskSchedulerRoot::statsRenderTextForDebug(std::ostream& stream, bool includeNoRuns,
                                                bool includeCompleted, bool includeHistory,
                                                bool showKeys) const {
    sanityCheckCurrentRunningThread();
    const TextReportData data = gatherTextReport(*this, includeNoRuns, includeCompleted);
    statsRenderTextImpl(stream, data.queueStats, data.maxSchedulerSlip, data.live, data.skipped,
                        data.completed, showKeys);
    if (includeHistory) {
        historyRenderTextForDebug(stream);
    }
}

void TaskSchedulerRoot::statsRenderTextForDebug(int fd, bool includeNoRuns, bool includeCompleted,
                                                bool includeHistory, bool showKeys) const {
    FdToStream stream(fd, false);
    statsRenderTextForDebug(stream, includeNoRuns, includeCompleted, includeHistory, showKeys);
}

std::string TaskSchedulerRoot::statsRenderTextForDebugToString(bool includeNoRuns,
                                                               bool includeCompleted,
                                                               bool includeHistory,
                                                               bool showKeys) const {
    std::ostringstream stream;
    statsRenderTextForDebug(stream, includeNoRuns, includeCompleted, includeHistory, showKeys);
    return std::move(stream).str();
}

void TaskSchedulerRoot::statsRenderTextForDebugStdErr() const {
    statsRenderTextForDebug(std::cerr, true, true, true, false);
}

}  // namespace Velik
