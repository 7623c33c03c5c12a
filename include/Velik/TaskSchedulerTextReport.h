// The text statistics report: the human-readable dump of a root's
// schedulers, usually reached through
// `TaskSchedulerRoot::statsRenderTextForDebug`.
//
// The report is, in this order: the per-priority queue table, the maximum
// scheduler slip, a legend, the table of live tasks and, when there are any,
// the table of completed tasks. Task tables are sorted by total run time,
// largest first:
//
//   Priority RunnableCount     IdleCount DoneCount   TotalRunCount
//   absolute             0             0         0               0
//   ...
//   TaskName SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs ...
//   timer    Tl          1         0.045  0.000   0.000    1    0    45 ...
//
// Work columns are blank for tasks that never reported work.
#pragma once

#include <Velik/TaskSchedulerQueueStats.h>
#include <Velik/TaskStat.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace Velik {

class TaskSchedulerRoot;

// The whole report. `live` and `completed` need not be sorted; `skipped` is
// the number of live tasks left out for having no runs; `showKeys` appends
// each live task's key to its name.
void statsRenderTextImpl(std::ostream& stream, const TaskSchedulerQueueStats& queueStats,
                         double maxSchedulerSlip, const std::vector<TaskStat>& live,
                         std::uint32_t skipped, const std::vector<TaskStat>& completed,
                         bool showKeys);

// One task table under `title`; `completed` adds the "Completed" column.
void statsRenderTextTasks(std::ostream& stream, const std::string& title,
                          const std::vector<TaskStat>& stats, bool completed, bool showKeys);

// What a root's report shows, gathered as `statsRenderTextForDebug` gathers
// it: the live and (with `includeCompleted`) completed records of all its
// schedulers, their merged queue statistics and the maximum slip in seconds.
// On the root's thread.
struct TextReportData {
    TaskSchedulerQueueStats queueStats;
    double maxSchedulerSlip = 0.0;
    std::vector<TaskStat> live;
    std::uint32_t skipped = 0;
    std::vector<TaskStat> completed;
};
TextReportData gatherTextReport(const TaskSchedulerRoot& root, bool includeNoRuns,
                                bool includeCompleted);

// The report drawn a few task rows at a time, so that a report of many
// thousand tasks need not hold the thread for one long run. Without a
// `NameText` the slices together are byte for byte what `statsRenderTextImpl`
// writes (which draws the report in one slice):
//
//   Velik::TextReportData data = Velik::gatherTextReport(*root, true, true);
//   Velik::TextReportSlicedRender render(data, false);
//   while (render.renderSlice(out, 200)) {
//       ...  // hand on what `out` holds, let others run
//   }
class TextReportSlicedRender {
  public:
    // How a task name is shown (for example with control characters
    // escaped); the name column's width follows the shown text.
    using NameText = std::function<std::string(std::string_view)>;

    // `data` must outlive the render; records are sorted here.
    TextReportSlicedRender(const TextReportData& data, bool showKeys, NameText nameText = {});
    TextReportSlicedRender(const TaskSchedulerQueueStats& queueStats, double maxSchedulerSlip,
                           const std::vector<TaskStat>& live, std::uint32_t skipped,
                           const std::vector<TaskStat>& completed, bool showKeys,
                           NameText nameText = {});

    // Writes the next part of the report: everything up to at most `rows`
    // more task rows (at least one). Returns whether anything is left.
    bool renderSlice(std::ostream& stream, std::size_t rows);
    bool done() const { return stage_ == Stage::finished; }

  private:
    // One task table, sorted, with its name column's width and its next row.
    struct Table {
        std::string title;
        bool completed = false;
        bool showKeys = false;
        std::vector<const TaskStat*> sorted;
        std::size_t width = 0;
        std::size_t next = 0;
    };
    enum class Stage { head, liveRows, skippedLine, completedHead, completedRows, finished };

    Table makeTable(std::string title, const std::vector<TaskStat>& stats, bool completed,
                    bool showKeys) const;
    // Writes up to `rows` rows of `table`; returns how many it wrote.
    std::size_t renderRows(std::ostream& stream, Table& table, std::size_t rows) const;

    const TaskSchedulerQueueStats& queueStats_;
    double maxSchedulerSlip_;
    std::uint32_t skipped_;
    NameText nameText_;
    Table live_;
    Table completed_;
    Stage stage_ = Stage::head;
};

}  // namespace Velik
