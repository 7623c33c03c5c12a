// The table and its header as lines of text, for the screen and `--once`.
//
// Columns: THREAD (only when several threads are shown), SCHEDULER, SP
// (status and priority letters as the text report has them), RUN/s, TIME%
// (share of the thread's time), LAST-LAT and MAX-LAT (scheduling latency),
// MAX-RUN (the longest single run, to the millisecond the snapshot gives),
// QV200 and QV500, WORK/s, PEND, and last TASK: indented one step per group
// level, a group's name after "[-]", or "[+]" while folded.
//
// Figures that need two snapshots read "-" until the second one arrives.
#pragma once

#include "TaskTable.h"

#include <string>
#include <string_view>
#include <vector>

namespace VelikTop {

// Column widths fitted to the names of one table's lines.
class TableLayout {
  public:
    TableLayout(const std::vector<TableLine>& lines, bool showThread);

    // The column titles.
    std::string heading() const;
    // One row of the table.
    std::string line(const TableLine& line) const;

  private:
    bool showThread_;
    std::size_t threadWidth_ = 6;     // "THREAD"
    std::size_t schedulerWidth_ = 9;  // "SCHEDULER"
};

// The lines above the table: the time, the thread and task counts, the
// interval, the sort order and filter; then one line per thread with its
// busy share, runs per second and worst slip, and "stale 12s" after a
// thread whose figures are stale.
std::vector<std::string> formatSummary(const std::vector<ThreadView>& threads,
                                       const ViewOptions& options, std::size_t shown,
                                       double intervalSeconds);

// `text` with control characters (C0, DEL, C1) and bytes that are not UTF-8
// shown as "\x1b": names come from the daemon and must not drive the
// terminal. The stats endpoint's text replies show them the same way.
std::string printable(std::string_view text);

// "stale 12s": figures taken `seconds` ago that the thread did not renew.
std::string staleMarker(double seconds);

// "987", "12.3k", "4.56M": a count or rate in at most six characters.
std::string formatCount(double value);
// "850ns", "12.0us", "4.56ms", "1.20s": a duration in at most seven characters.
std::string formatSeconds(double seconds);

}  // namespace VelikTop
