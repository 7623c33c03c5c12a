// The table's columns: what each shows, its title and width, and the key
// `--columns` names it by.
//
//   task       TASK      the name, indented under its group in the tree view
//   sp         SP        status and priority letters, as in the text report
//   runs       RUN/s     runs per second over the last interval
//   time       TIME%     share of the thread's time
//   maxlat     MAX-LAT   worst scheduling latency
//   qv200      QV200     runs of twice the quantum up to five times
//   qv500      QV500     runs of five times the quantum or more
//   p50, p99   LAT-P50, LAT-P99  scheduling latency quantiles (histograms)
//   work       WORK/s    work per second
//   pend       PEND      pending work
//   lastlat    LAST-LAT  the latest scheduling latency
//   maxrun     MAX-RUN   the longest single run
//   timer      TMR-P99   timer lateness, 99th percentile (histograms)
//   scheduler  SCHEDULER the scheduler the task runs in
//   thread     THREAD    the thread (socket)
//
// The task's name comes first and is always shown: the rest are figures
// that only mean something beside it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace VelikTop {

enum class Column {
    task,
    status,
    runs,
    share,
    maxLatency,
    qv200,
    qv500,
    latencyP50,
    latencyP99,
    work,
    pending,
    lastLatency,
    maxRun,
    timerP99,
    scheduler,
    thread,
};

struct ColumnInfo {
    Column id;
    const char* key;    // as `--columns` names it
    const char* title;  // the heading
    std::size_t width;  // the figure's width; names grow to fit
    bool leftAligned;
};

// Every column, in the default order.
const std::vector<ColumnInfo>& allColumns();
const ColumnInfo& columnInfo(Column id);

// The default columns: all of them, THREAD only when several threads are
// watched.
std::vector<Column> defaultColumns(bool severalThreads);

// "task,sp,runs": the keys, in any case and order; TASK is put first when
// not named. Throws `TopError` (`exitUsage`) naming an unknown key.
std::vector<Column> parseColumns(std::string_view list);

// The keys of `columns` joined by commas, as `parseColumns` reads them.
std::string columnKeys(const std::vector<Column>& columns);

}  // namespace VelikTop
