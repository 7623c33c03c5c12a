#include "Hints.h"

#include "TableText.h"
#include "TaskTable.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <sstream>
#include <unordered_map>

namespace VelikTop {
namespace {

constexpr const char* groupQuantumText =
    "A run of a group's task runs the group's tasks one after another, and "
    "counts as a violation of the group when it lasts twice the group's "
    "quantum or more. The group counted violations while its tasks, each "
    "measured against its own quantum, counted none: their quantum is longer "
    "than the group's, so one task's run is enough to overrun the group. Give "
    "the tasks a quantum of at most half the group's (the group's "
    "defaultTaskQuantumIs before they are made, or taskQuantumIs on each), or "
    "give the group a longer one with taskGroupQuantumIs.";

constexpr const char* lateTimerText =
    "A timer task's scheduling latency is the time from its timer falling due "
    "to its run starting. This one waited longer than a quantum (20 ms, the "
    "default: the snapshot does not give a task's own), because the thread was "
    "busy with other runs. Look on the same thread for tasks whose runs are "
    "long (MAX-RUN, QV200, QV500), or give the timer task a higher priority.";

constexpr const char* violationsText =
    "A run that lasts twice its task's quantum or more counts in QV200, five "
    "times or more in QV500, and holds up every other task of the thread "
    "meanwhile. The task should ask taskShouldYield() more often and leave the "
    "rest of its work for its next run, or, when its runs must be long, be "
    "given a longer quantum with taskQuantumIs.";

constexpr const char* pendingText =
    "The task reports more work waiting at every refresh than at the one "
    "before: it does not keep up with what arrives, and its backlog, with the "
    "memory it holds, grows as long as this goes on. It needs more of the "
    "thread (a higher priority, a longer quantum, fewer other tasks to share "
    "with), or its producers need slowing down.";

constexpr const char* neverRunText =
    "A task that has not run since it was made may wait for something that "
    "does not come (a timer never started, a descriptor never ready), be "
    "suspended, or be starved by busier tasks of a higher priority. The "
    "snapshot leaves tasks without a run out of its list and counts them as "
    "\"without runs\" in the summary.";

std::uint64_t violations(const TaskRow& row) {
    return row.qv200 + row.qv500;
}

// How much a counter grew; nothing when it went down (a reset or another
// task in the same place).
std::uint64_t growth(std::uint64_t before, std::uint64_t now) {
    return now > before ? now - before : 0;
}

class Finder {
  public:
    Finder(const ThreadSnapshot* previous, const ThreadSnapshot& current,
           const PendingStreaks& streaks)
        : current_(current), streaks_(streaks) {
        if (previous) {
            for (const TaskRow& row : previous->tasks) {
                before_.emplace(row.identity(), &row);
            }
            for (const SchedulerRow& s : previous->schedulers) {
                skippedBefore_.emplace(s.scope, s.skipped);
            }
        }
    }

    std::vector<Hint> find() {
        if (before_.empty() && skippedBefore_.empty()) {
            return {};
        }
        std::vector<Hint> out;
        for (const auto kind : {HintKind::groupQuantum, HintKind::lateTimer, HintKind::violations,
                                HintKind::pendingGrows, HintKind::neverRun}) {
            // Tasks of one name are one finding: a server's hundred
            // connections overrunning alike is one thing to look at.
            std::vector<Tally> tallies;
            for (const TaskRow& row : current_.tasks) {
                if (row.completed) {
                    continue;
                }
                if (const auto amount = measure(kind, row, out)) {
                    auto it = std::find_if(tallies.begin(), tallies.end(),
                                           [&row](const Tally& t) { return t.name == row.name; });
                    if (it == tallies.end()) {
                        it = tallies.insert(tallies.end(), Tally{row.name});
                    }
                    ++it->tasks;
                    it->total += *amount;
                    it->worst = std::max(it->worst, *amount);
                }
            }
            for (const Tally& t : tallies) {
                add(out, kind, t.name, tallyTitle(kind, t));
            }
        }
        for (const SchedulerRow& s : current_.schedulers) {
            const auto it = skippedBefore_.find(s.scope);
            if (s.skipped > 0 && it != skippedBefore_.end() && it->second > 0) {
                add(out, HintKind::neverRun, s.name,
                    fmt::format("{} task{} of scheduler \"{}\" never ran", s.skipped,
                                s.skipped == 1 ? "" : "s", s.name));
            }
        }
        return out;
    }

  private:
    struct Tally {
        std::string name;
        std::size_t tasks = 0;
        double total = 0, worst = 0;
    };

    static std::string tallyTitle(HintKind kind, const Tally& t) {
        const std::string who = t.tasks == 1 ? fmt::format("\"{}\"", t.name)
                                             : fmt::format("{} tasks \"{}\"", t.tasks, t.name);
        const auto times = static_cast<std::uint64_t>(t.total);
        switch (kind) {
            case HintKind::lateTimer:
                return fmt::format("timer {} ran {}{} late", t.tasks == 1 ? "task " + who : who,
                                   t.tasks == 1 ? "" : "up to ", formatSeconds(t.worst));
            case HintKind::violations:
                return fmt::format("{} went over {} quantum {} time{} since the last refresh", who,
                                   t.tasks == 1 ? "its" : "their", times, times == 1 ? "" : "s");
            default:
                return who + " never ran";
        }
    }

    const TaskRow* before(const TaskRow& row) const {
        const auto it = before_.find(row.identity());
        return it == before_.end() ? nullptr : it->second;
    }

    void add(std::vector<Hint>& out, HintKind kind, const std::string& subject,
             std::string title) const {
        static const std::unordered_map<HintKind, const char*> texts = {
            {HintKind::groupQuantum, groupQuantumText},
            {HintKind::lateTimer, lateTimerText},
            {HintKind::violations, violationsText},
            {HintKind::pendingGrows, pendingText},
            {HintKind::neverRun, neverRunText}};
        out.push_back(
            {kind, current_.thread, subject, current_.thread + ": " + title, texts.at(kind)});
    }

    // Adds the findings of a kind that names tasks one by one; for the
    // kinds told by name, what to count for `row`, if anything.
    std::optional<double> measure(HintKind kind, const TaskRow& row, std::vector<Hint>& out) const {
        const TaskRow* was = before(row);
        switch (kind) {
            case HintKind::groupQuantum:
                if (row.isGroup && !row.standIn && was) {
                    groupHint(row, *was, out);
                }
                break;
            case HintKind::lateTimer:
                if (row.hasTimer && was && row.runCount > was->runCount &&
                    row.lastLatency > lateTimerSeconds) {
                    return row.lastLatency;
                }
                break;
            case HintKind::violations:
                if (!row.isGroup && was) {
                    if (const auto n = growth(violations(*was), violations(row))) {
                        return static_cast<double>(n);
                    }
                }
                break;
            case HintKind::pendingGrows:
                if (const auto it = streaks_.find(row.identity());
                    it != streaks_.end() && it->second >= pendingRefreshes && row.workPending) {
                    add(out, kind, row.name,
                        fmt::format("pending work of \"{}\" grew {} refreshes running (now {})",
                                    row.name, it->second, *row.workPending));
                }
                break;
            case HintKind::neverRun:
                if (!row.standIn && row.runCount == 0 && was && was->runCount == 0) {
                    return 1.0;
                }
                break;
        }
        return std::nullopt;
    }

    // Violations of the group's task, none of its tasks', while they ran.
    void groupHint(const TaskRow& group, const TaskRow& was, std::vector<Hint>& out) const {
        const std::uint64_t over = growth(violations(was), violations(group));
        if (over == 0) {
            return;
        }
        std::uint64_t membersOver = 0, membersRan = 0;
        for (const TaskRow& row : current_.tasks) {
            if (row.completed || row.scope != group.childScope) {
                continue;
            }
            const TaskRow* before = this->before(row);
            membersOver += growth(before ? violations(*before) : 0, violations(row));
            membersRan += growth(before ? before->runCount : 0, row.runCount);
        }
        if (membersOver == 0 && membersRan > 0) {
            add(out, HintKind::groupQuantum, group.name,
                fmt::format("group \"{}\" went over its quantum {} time{}, its tasks never: "
                            "its quantum is shorter than theirs",
                            group.name, over, over == 1 ? "" : "s"));
        }
    }

    const ThreadSnapshot& current_;
    const PendingStreaks& streaks_;
    std::unordered_map<std::string, const TaskRow*> before_;
    std::unordered_map<std::string, std::uint64_t> skippedBefore_;
};

}  // namespace

PendingStreaks pendingStreaks(const PendingStreaks& before, const ThreadSnapshot* previous,
                              const ThreadSnapshot& current) {
    PendingStreaks out;
    if (!previous) {
        return out;
    }
    std::unordered_map<std::string, const TaskRow*> earlier;
    for (const TaskRow& row : previous->tasks) {
        earlier.emplace(row.identity(), &row);
    }
    for (const TaskRow& row : current.tasks) {
        const std::string id = row.identity();
        const auto it = earlier.find(id);
        if (it == earlier.end() || !row.workPending || !it->second->workPending ||
            *row.workPending <= *it->second->workPending) {
            continue;
        }
        const auto streak = before.find(id);
        out[id] = (streak == before.end() ? 0 : streak->second) + 1;
    }
    return out;
}

std::vector<Hint> findHints(const ThreadSnapshot* previous, const ThreadSnapshot& current,
                            const PendingStreaks& streaks) {
    return Finder(previous, current, streaks).find();
}

std::vector<Hint> shownHints(const std::vector<Hint>& hints, bool showOwn) {
    std::vector<Hint> out;
    std::copy_if(hints.begin(), hints.end(), std::back_inserter(out),
                 [showOwn](const Hint& h) { return showOwn || !isOwnTask(h.subject); });
    return out;
}

std::string hintLine(const std::vector<Hint>& hints, std::size_t width) {
    if (hints.empty()) {
        return {};
    }
    const std::string tail = hints.size() == 1
                                 ? std::string("  (w: why)")
                                 : fmt::format("  (and {} more; w lists them)", hints.size() - 1);
    std::string title = printable(hints.front().title);
    const std::size_t around = displayWidth("hint: " + tail);
    if (width && around + displayWidth(title) > width) {
        // The title gives way: the count and the key stay in sight.
        title = cutCells(title, width > around + 1 ? width - around - 1 : 0) + "~";
    }
    return "hint: " + title + tail;
}

std::vector<std::string> hintList(const std::vector<Hint>& hints, std::size_t width) {
    constexpr const char* indent = "    ";
    const std::size_t room = width > 24 ? width - 4 : 20;
    std::vector<std::string> out;
    if (hints.empty()) {
        out.push_back("(no hint: nothing stands out in the last refresh)");
    }
    for (const Hint& h : hints) {
        if (!out.empty()) {
            out.emplace_back();
        }
        out.push_back(h.title);
        std::istringstream words(h.explanation);
        std::string line, word;
        while (words >> word) {
            if (!line.empty() && line.size() + 1 + word.size() > room) {
                out.push_back(indent + line);
                line.clear();
            }
            line += (line.empty() ? "" : " ") + word;
        }
        if (!line.empty()) {
            out.push_back(indent + line);
        }
    }
    return out;
}

void HintBoard::update(const Sampler& sampler) {
    const auto& threads = sampler.threads();
    seen_.resize(threads.size());
    streaks_.resize(threads.size());
    hints_.clear();
    for (std::size_t i = 0; i < threads.size(); ++i) {
        const Sampler::Thread& t = threads[i];
        if (!t.current) {
            continue;
        }
        const ThreadSnapshot* previous = t.previous ? &*t.previous : nullptr;
        if (t.currentAt != seen_[i]) {
            seen_[i] = t.currentAt;
            streaks_[i] = pendingStreaks(streaks_[i], previous, *t.current);
        }
        std::vector<Hint> found = findHints(previous, *t.current, streaks_[i]);
        hints_.insert(hints_.end(), std::make_move_iterator(found.begin()),
                      std::make_move_iterator(found.end()));
    }
    // The weightiest kind first, whichever thread it is on.
    std::stable_sort(hints_.begin(), hints_.end(),
                     [](const Hint& a, const Hint& b) { return a.kind < b.kind; });
}

void HintBoard::reset() {
    seen_.clear();
    streaks_.clear();
    hints_.clear();
}

}  // namespace VelikTop
