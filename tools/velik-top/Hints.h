// Short findings about what a thread's figures show, for the line under the
// summary and the list `h` opens.
//
// Each is read from two snapshots of one thread, the one before and the
// latest, so it says what happened over the last refresh:
//
//   group quantum   a group's run went over its quantum while none of its
//                   tasks went over theirs: the group's quantum is shorter
//                   than its tasks' (they ran, and the group counted it)
//   late timer      a timer task that ran waited longer than a quantum
//                   (the default, 20 ms: the snapshot does not say a task's
//                   own) from being due to running
//   violations      a task's runs over its quantum went up
//   pending grows   a task's pending work went up on each of the last
//                   `pendingRefreshes` refreshes
//   never run       a task, or tasks the snapshot left out for it, that had
//                   no run in either snapshot
//
//   VelikTop::HintBoard board;
//   board.update(sampler);                 // after each refresh
//   for (const VelikTop::Hint& h : board.hints()) { ... h.title ... }
#pragma once

#include "Sampler.h"
#include "SnapshotModel.h"

#include <map>
#include <string>
#include <vector>

namespace VelikTop {

enum class HintKind { groupQuantum, lateTimer, violations, pendingGrows, neverRun };

struct Hint {
    HintKind kind;
    std::string thread;
    std::string subject;      // the task or scheduler it is about
    std::string title;        // one line
    std::string explanation;  // one paragraph
};

// Refreshes in a row that pending work must grow to be named.
constexpr int pendingRefreshes = 5;
// Latency past which a timer task counts as late: the default quantum.
constexpr double lateTimerSeconds = 0.020;

// For each task (by `TaskRow::identity`), how many refreshes in a row its
// pending work has grown.
using PendingStreaks = std::map<std::string, int>;

// The streaks after `current`, from those before it and the snapshot before.
PendingStreaks pendingStreaks(const PendingStreaks& before, const ThreadSnapshot* previous,
                              const ThreadSnapshot& current);

// The findings of `current` against `previous` (none without it), in the
// order of the kinds above, then of the snapshot's rows.
std::vector<Hint> findHints(const ThreadSnapshot* previous, const ThreadSnapshot& current,
                            const PendingStreaks& streaks);

// The findings about what the table shows: those about the stats
// endpoint's own tasks (`isOwnTask`) only with `showOwn`.
std::vector<Hint> shownHints(const std::vector<Hint>& hints, bool showOwn);

// The line under the summary: the first finding and how many more, or
// empty without any; terminal-safe (`printable`), its title cut short with
// "~" to keep it within `width` cells (0: whole).
std::string hintLine(const std::vector<Hint>& hints, std::size_t width = 0);

// The list: each finding's title, then its explanation wrapped to `width`
// and indented.
std::vector<std::string> hintList(const std::vector<Hint>& hints, std::size_t width);

// The findings of every thread of a sampler, kept up to date refresh by
// refresh.
class HintBoard {
  public:
    // Takes the snapshots that are new since the last call.
    void update(const Sampler& sampler);
    // Forgets every streak, as before the first refresh.
    void reset();
    const std::vector<Hint>& hints() const { return hints_; }

  private:
    std::vector<Sampler::Clock::time_point> seen_;  // per thread: the snapshot taken
    std::vector<PendingStreaks> streaks_;           // per thread
    std::vector<Hint> hints_;
};

}  // namespace VelikTop
