// The rows the viewer shows, in the order it shows them.
//
// Tasks of all threads are sorted together at the top level; a group's
// tasks follow its row, indented and sorted among themselves, unless the
// group is folded. The flat view sorts every task of every level together
// instead. A filter keeps the tasks whose name holds it (in any letter
// case), the groups above them, and all of a group whose name holds it.
//
// Tasks of one name in one scheduler are merged into one line with their
// count and summed figures (worst latencies), by default when there are at
// least `mergeThreshold` of them. The stats endpoint's own tasks (the
// viewer's requests being served) are left out unless asked for, as are
// idle tasks (no run in the last interval, not queued) when asked:
//
//   VelikTop::ViewOptions view;
//   view.sort = VelikTop::SortKey::latency;
//   view.filter = "conn";
//   for (const VelikTop::TableLine& line : VelikTop::buildTable(threads, view)) { ... }
#pragma once

#include "SnapshotDiff.h"
#include "SnapshotModel.h"

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace VelikTop {

struct HistogramSet;

// One thread as the table sees it: its snapshot and the rates of its rows.
struct ThreadView {
    const ThreadSnapshot* snapshot = nullptr;
    std::vector<TaskRates> rates;  // one per row, as `rates()` gives them
    // Set when the figures are stale (the thread stopped answering): their
    // age in seconds.
    std::optional<double> staleSeconds;
    // The daemon's run histograms, when it answered for them.
    const HistogramSet* histograms = nullptr;
};

enum class SortKey {
    share,       // largest share of the thread's time first
    latency,     // worst scheduling latency first
    violations,  // most runs over 500%, then over 200% of the quantum, first
    name,        // by name, A to Z
};

// "time share", "latency", "violations" or "name".
const char* sortKeyName(SortKey key);

// When tasks of one name in one scheduler share a line.
enum class MergeMode {
    crowds,  // names of at least `mergeThreshold` tasks
    all,     // names of two tasks or more
    off,
};
constexpr std::size_t mergeThreshold = 5;

// "crowds", "all" or "off".
const char* mergeModeName(MergeMode mode);

struct ViewOptions {
    SortKey sort = SortKey::share;
    bool inverted = false;  // the sort order upside down
    bool flat = false;      // one sorted list instead of the group tree
    bool hideIdle = false;
    bool showOwn = false;  // the stats endpoint's own tasks too
    MergeMode merge = MergeMode::crowds;
    std::string filter;
    bool showCompleted = false;  // completed records too, as rows of their own
    bool foldedByDefault = false;
    // Groups (by `TableLine::groupKey`) folded the other way than the default.
    std::set<std::string> toggled;

    bool folded(const std::string& groupKey) const {
        return foldedByDefault != (toggled.count(groupKey) > 0);
    }
    // Folds an unfolded group and the other way round.
    void toggleFold(const std::string& groupKey);
    // Folds every group, or unfolds every group when all were folded.
    void toggleFoldAll();
};

struct TableLine {
    const ThreadSnapshot* thread = nullptr;
    const TaskRow* row = nullptr;  // of a merged line: the summed row it holds
    TaskRates rates;
    bool folded = false;     // groups only
    std::string groupKey;    // groups only: identifies the group across refreshes
    bool stale = false;      // the thread's figures are stale
    std::size_t merged = 1;  // the tasks the line stands for
    std::shared_ptr<const TaskRow> mergedRow;
    const HistogramSet* histograms = nullptr;
    bool flat = false;  // shown without the tree's indent and fold marks

    // Identifies the line across refreshes, for the cursor to follow.
    std::string key() const;
};

std::vector<TableLine> buildTable(const std::vector<ThreadView>& threads,
                                  const ViewOptions& options);

// Whether `name` holds `filter`, in any letter case; an empty filter matches.
bool nameMatches(const std::string& name, const std::string& filter);

// Whether a task is one of the stats endpoint's own: "StatsEndpoint..." or
// the snapshot renderer "TaskSchedulerRenderJson...".
bool isOwnTask(const std::string& name);

}  // namespace VelikTop
