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

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace Velik {

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

}  // namespace Velik
