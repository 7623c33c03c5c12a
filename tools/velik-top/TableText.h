// The table and its header as lines of text, for the screen and `--once`.
//
// TASK comes first: indented one step per group level in the tree view, a
// group's name after "[-]", or "[+]" while folded, a merged line's name
// followed by its count ("connection:read x200"). The other columns are
// those chosen (Columns.h). Given a width, the task column takes what the
// figures leave, down to `minTaskWidth`, and a name longer than its column
// is cut, ending in "~"; the figures that do not fit are cut at the right
// edge, and `skip` scrolls them sideways while TASK stays.
//
// Figures that need two snapshots read "-" until the second one arrives,
// as do the histogram quantiles of a row the daemon keeps none for.
#pragma once

#include "Columns.h"
#include "TaskTable.h"

#include <string>
#include <string_view>
#include <vector>

namespace VelikTop {

// The narrowest the task column gets to make room for figures.
constexpr std::size_t minTaskWidth = 30;

// Column widths fitted to the names of one table's lines.
class TableLayout {
  public:
    // `width` 0: no limit, every name whole (for scripts). `skip`: the
    // figure columns scrolled out of sight to the left.
    TableLayout(const std::vector<TableLine>& lines, std::vector<Column> columns,
                std::size_t width = 0, std::size_t skip = 0);

    // The column titles.
    std::string heading() const;
    // One row of the table, at most `width` columns wide.
    std::string line(const TableLine& line) const;

  private:
    std::string fit(std::string text) const;

    std::vector<Column> columns_;  // TASK, then the figures in sight
    std::size_t width_;
    std::size_t taskWidth_ = 4;       // "TASK"
    std::size_t threadWidth_ = 6;     // "THREAD"
    std::size_t schedulerWidth_ = 9;  // "SCHEDULER"
};

// The columns one sees in terminal cells: UTF-8 sequences count once.
std::size_t displayWidth(std::string_view text);
// The first `width` cells of `text`, never half a UTF-8 sequence.
std::string cutCells(const std::string& text, std::size_t width);

// The lines above the table: the time, the thread and task counts, the
// interval, the sort order and filter, and the view when not the default
// ("flat", "merge: off", "idle hidden", "own shown"); then one line per
// thread with its busy share, runs per second and worst slip, its root's
// latency and timer-lateness quantiles when the daemon keeps histograms,
// and "stale 12s" after a thread whose figures are stale.
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
