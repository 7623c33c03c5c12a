// The text statistics report, and the root's entry points to it.
#include "Velik/TaskSchedulerTextReport.h"

#include "Velik/FdToStream.h"
#include "Velik/TaskSchedulerRoot.h"

#include <boost/format.hpp>

#include <algorithm>
#include <iostream>
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

std::string nameColumn(const TaskStat& stat, bool showKeys) {
    return showKeys ? stat.taskName() + stat.taskKey().toStrep() : stat.taskName();
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
                   std::size_t width, bool completed, bool showKeys) {
    const std::string name = nameColumn(stat, showKeys);
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

}  // namespace

void statsRenderTextTasks(std::ostream& stream, const std::string& title,
                          const std::vector<TaskStat>& stats, bool completed, bool showKeys) {
    std::vector<const TaskStat*> sorted;
    sorted.reserve(stats.size());
    std::size_t width = title.size();
    for (const TaskStat& stat : stats) {
        sorted.push_back(&stat);
        width = std::max(width, stat.taskNameRef().str().size() +
                                    (showKeys ? stat.taskKey().toStrep().size() : 0));
    }
    std::sort(sorted.begin(), sorted.end(), [](const TaskStat* a, const TaskStat* b) {
        return a->taskTotalRunTime() > b->taskTotalRunTime();
    });
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
    RowFormats formats(completed);
    for (const TaskStat* stat : sorted) {
        renderTaskRow(stream, formats, *stat, width, completed, showKeys);
    }
}

void statsRenderTextImpl(std::ostream& stream, const TaskSchedulerQueueStats& queueStats,
                         double maxSchedulerSlip, const std::vector<TaskStat>& live,
                         std::uint32_t skipped, const std::vector<TaskStat>& completed,
                         bool showKeys) {
    renderQueueTable(stream, queueStats);
    stream << format("Maximum scheduler slip %.6f seconds\n") % maxSchedulerSlip << "\n";
    renderLegend(stream, !completed.empty());
    statsRenderTextTasks(stream, "TaskName", live, false, showKeys);
    if (skipped != 0) {
        stream << format("Skipped %u task%s with no runs\n") % skipped % (skipped == 1 ? "" : "s");
    }
    if (!completed.empty()) {
        statsRenderTextTasks(stream, "TaskName (completed)", completed, true, false);
    }
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
    std::vector<TaskStat> live;
    std::vector<TaskStat> completed;
    std::uint32_t skipped = 0;
    for (const TaskScheduler* scheduler : schedulers()) {
        skipped += scheduler->getTaskStats(&live, includeNoRuns);
        if (includeCompleted) {
            scheduler->getCompletedTaskStats(&completed, includeNoRuns);
        }
    }
    statsRenderTextImpl(stream, queueStatsRoot(), seconds(maxSchedulerSlip()), live, skipped,
                        completed, showKeys);
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
