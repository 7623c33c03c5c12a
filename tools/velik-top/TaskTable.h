// The rows the viewer shows, in the order it shows them.
//
// Tasks of all threads are sorted together at the top level; a group's
// tasks follow its row, indented and sorted among themselves, unless the
// group is folded. A filter keeps the tasks whose name holds it (in any
// letter case), the groups above them, and all of a group whose name holds
// it:
//
//   VelikTop::ViewOptions view;
//   view.sort = VelikTop::SortKey::latency;
//   view.filter = "conn";
//   for (const VelikTop::TableLine& line : VelikTop::buildTable(threads, view)) { ... }
#pragma once

#include "SnapshotDiff.h"
#include "SnapshotModel.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace VelikTop {

// One thread as the table sees it: its snapshot and the rates of its rows.
struct ThreadView {
    const ThreadSnapshot* snapshot = nullptr;
    std::vector<TaskRates> rates;  // one per row, as `rates()` gives them
    // Set when the figures are stale (the thread stopped answering): their
    // age in seconds.
    std::optional<double> staleSeconds;
};

enum class SortKey {
    share,       // largest share of the thread's time first
    latency,     // worst scheduling latency first
    violations,  // most runs over 500%, then over 200% of the quantum, first
    name,        // by name, A to Z
};

// "time share", "latency", "violations" or "name".
const char* sortKeyName(SortKey key);

struct ViewOptions {
    SortKey sort = SortKey::share;
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
    const TaskRow* row = nullptr;
    TaskRates rates;
    bool folded = false;   // groups only
    std::string groupKey;  // groups only: identifies the group across refreshes
    bool stale = false;    // the thread's figures are stale
};

std::vector<TableLine> buildTable(const std::vector<ThreadView>& threads,
                                  const ViewOptions& options);

// Whether `name` holds `filter`, in any letter case; an empty filter matches.
bool nameMatches(const std::string& name, const std::string& filter);

}  // namespace VelikTop
