#include "TaskTable.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <tuple>

namespace VelikTop {
namespace {

struct Entry {
    std::size_t thread;
    std::size_t row;
};

// One line to be: a task, or the tasks of one name merged.
struct Unit {
    Entry first;
    const TaskRow* row;
    TaskRates rates;
    std::size_t count = 1;
    std::shared_ptr<const TaskRow> merged;
};

// The summed row of tasks of one name: counts and times add up, latencies
// and the longest run are the worst of them.
std::shared_ptr<const TaskRow> mergeRows(const std::vector<const TaskRow*>& rows) {
    auto out = std::make_shared<TaskRow>(*rows.front());
    out->address.clear();
    for (std::size_t i = 1; i < rows.size(); ++i) {
        const TaskRow& r = *rows[i];
        out->onRunQueue = out->onRunQueue || r.onRunQueue;
        out->currentlyRunning = out->currentlyRunning || r.currentlyRunning;
        out->suspended = out->suspended && r.suspended;
        out->hasTimer = out->hasTimer || r.hasTimer;
        out->timerRunning = out->timerRunning || r.timerRunning;
        out->runCount += r.runCount;
        out->totalRunTime += r.totalRunTime;
        out->lastLatency = std::max(out->lastLatency, r.lastLatency);
        out->maxLatency = std::max(out->maxLatency, r.maxLatency);
        out->qv200 += r.qv200;
        out->qv500 += r.qv500;
        out->maxMs = std::max(out->maxMs, r.maxMs);
        if (r.workTotal) {
            out->workTotal = out->workTotal.value_or(0) + *r.workTotal;
        }
        if (r.workPending) {
            out->workPending = out->workPending.value_or(0) + *r.workPending;
        }
    }
    return out;
}

class TableBuilder {
  public:
    TableBuilder(const std::vector<ThreadView>& threads, const ViewOptions& options)
        : threads_(threads), options_(options) {
        for (std::size_t t = 0; t < threads.size(); ++t) {
            const auto& tasks = threads[t].snapshot->tasks;
            for (std::size_t r = 0; r < tasks.size(); ++r) {
                if (tasks[r].completed && !options.showCompleted) {
                    continue;
                }
                const bool top = tasks[r].depth == 0 || options.flat;
                children_[{t, top ? std::string() : tasks[r].scope}].push_back({t, r});
            }
        }
    }

    std::vector<TableLine> build() {
        std::vector<Entry> top;
        for (std::size_t t = 0; t < threads_.size(); ++t) {
            const auto& level = children_[{t, std::string()}];
            top.insert(top.end(), level.begin(), level.end());
        }
        emit(top, options_.filter.empty());
        return std::move(lines_);
    }

  private:
    const TaskRow& rowOf(const Entry& e) const { return threads_[e.thread].snapshot->tasks[e.row]; }
    TaskRates ratesOf(const Entry& e) const {
        const auto& rates = threads_[e.thread].rates;
        return e.row < rates.size() ? rates[e.row] : TaskRates{};
    }
    std::string groupKey(const Entry& e) const {
        return threads_[e.thread].snapshot->thread + '\n' + rowOf(e).childScope;
    }
    const std::vector<Entry>& childrenOf(const Entry& e) {
        static const std::vector<Entry> none;
        return options_.flat ? none : children_[{e.thread, rowOf(e).childScope}];
    }

    // Left out whatever the filter says: the endpoint's own tasks, idle ones.
    bool hidden(const Entry& e) const {
        const TaskRow& row = rowOf(e);
        if (!options_.showOwn && isOwnTask(row.name)) {
            return true;
        }
        const TaskRates r = ratesOf(e);
        return options_.hideIdle && r.known && r.runsPerSecond == 0 && !row.currentlyRunning &&
               !row.onRunQueue;
    }

    // Whether the row or, for a group, any task below it passes the filter.
    bool shown(const Entry& e) {
        if (hidden(e)) {
            return false;
        }
        const TaskRow& row = rowOf(e);
        if (nameMatches(row.name, options_.filter)) {
            return true;
        }
        if (!row.isGroup) {
            return false;
        }
        const auto& below = childrenOf(e);
        return std::any_of(below.begin(), below.end(), [this](const Entry& c) { return shown(c); });
    }

    // The entries of one level as lines: tasks of one name merged.
    std::vector<Unit> units(const std::vector<Entry>& level) const {
        std::map<std::tuple<std::size_t, std::string, std::string, bool>, std::vector<Entry>>
            byName;
        std::vector<Unit> out;
        for (const Entry& e : level) {
            const TaskRow& row = rowOf(e);
            if (row.isGroup || options_.merge == MergeMode::off) {
                out.push_back({e, &row, ratesOf(e), 1, nullptr});
            } else {
                byName[{e.thread, row.scope, row.name, row.completed}].push_back(e);
            }
        }
        const std::size_t least = options_.merge == MergeMode::all ? 2 : mergeThreshold;
        for (auto& [name, entries] : byName) {
            if (entries.size() < least) {
                for (const Entry& e : entries) {
                    out.push_back({e, &rowOf(e), ratesOf(e), 1, nullptr});
                }
                continue;
            }
            std::vector<const TaskRow*> rows;
            TaskRates sum;
            sum.known = true;
            for (const Entry& e : entries) {
                rows.push_back(&rowOf(e));
                const TaskRates r = ratesOf(e);
                sum.known = sum.known && r.known;
                sum.runsPerSecond += r.runsPerSecond;
                sum.share += r.share;
                sum.workPerSecond += r.workPerSecond;
                sum.violationsGained += r.violationsGained;
            }
            auto merged = mergeRows(rows);
            out.push_back({entries.front(), merged.get(), sum, entries.size(), merged});
        }
        return out;
    }

    // `inMatch`: a group above matched the filter, so all of it shows.
    void emit(const std::vector<Entry>& all, bool inMatch) {
        std::vector<Entry> level;
        for (const Entry& e : all) {
            if (inMatch ? !hidden(e) : shown(e)) {
                level.push_back(e);
            }
        }
        std::vector<Unit> sorted = units(level);
        std::sort(sorted.begin(), sorted.end(), [this](const Unit& a, const Unit& b) {
            return options_.inverted ? before(b, a) : before(a, b);
        });
        for (const Unit& u : sorted) {
            const ThreadView& view = threads_[u.first.thread];
            TableLine line;
            line.thread = view.snapshot;
            line.row = u.row;
            line.rates = u.rates;
            line.stale = view.staleSeconds.has_value();
            line.merged = u.count;
            line.mergedRow = u.merged;
            line.histograms = view.histograms;
            line.flat = options_.flat;
            const TaskRow& row = *u.row;
            if (row.isGroup && !options_.flat) {
                line.groupKey = groupKey(u.first);
                line.folded = options_.folded(line.groupKey);
            }
            lines_.push_back(line);
            if (row.isGroup && !options_.flat && !line.folded) {
                emit(childrenOf(u.first), inMatch || nameMatches(row.name, options_.filter));
            }
        }
    }

    bool before(const Unit& a, const Unit& b) const {
        const TaskRow& x = *a.row;
        const TaskRow& y = *b.row;
        const auto tie = [&] {
            return std::tie(x.name, x.address, threads_[a.first.thread].snapshot->thread,
                            a.first.row) < std::tie(y.name, y.address,
                                                    threads_[b.first.thread].snapshot->thread,
                                                    b.first.row);
        };
        switch (options_.sort) {
            case SortKey::share: {
                // Before rates are known, the run time so far stands in.
                const double u = a.rates.known ? a.rates.share : x.totalRunTime;
                const double v = b.rates.known ? b.rates.share : y.totalRunTime;
                return u != v ? u > v : tie();
            }
            case SortKey::latency:
                if (x.maxLatency != y.maxLatency) {
                    return x.maxLatency > y.maxLatency;
                }
                return x.lastLatency != y.lastLatency ? x.lastLatency > y.lastLatency : tie();
            case SortKey::violations:
                if (x.qv500 != y.qv500) {
                    return x.qv500 > y.qv500;
                }
                return x.qv200 != y.qv200 ? x.qv200 > y.qv200 : tie();
            case SortKey::name:
                break;
        }
        return tie();
    }

    const std::vector<ThreadView>& threads_;
    const ViewOptions& options_;
    std::map<std::pair<std::size_t, std::string>, std::vector<Entry>> children_;
    std::vector<TableLine> lines_;
};

char lower(char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

}  // namespace

const char* sortKeyName(SortKey key) {
    switch (key) {
        case SortKey::share:
            return "time share";
        case SortKey::latency:
            return "latency";
        case SortKey::violations:
            return "violations";
        case SortKey::name:
            return "name";
    }
    return "?";
}

const char* mergeModeName(MergeMode mode) {
    switch (mode) {
        case MergeMode::crowds:
            return "crowds";
        case MergeMode::all:
            return "all";
        case MergeMode::off:
            return "off";
    }
    return "?";
}

std::string TableLine::key() const {
    const std::string head = thread ? thread->thread + '\n' : std::string();
    if (merged > 1) {
        return head + row->scope + '\n' + row->name + (row->completed ? "\nC*" : "\nL*");
    }
    return head + row->identity();
}

void ViewOptions::toggleFold(const std::string& groupKey) {
    if (!toggled.erase(groupKey)) {
        toggled.insert(groupKey);
    }
}

void ViewOptions::toggleFoldAll() {
    foldedByDefault = !(foldedByDefault && toggled.empty());
    toggled.clear();
}

bool nameMatches(const std::string& name, const std::string& filter) {
    const auto it = std::search(name.begin(), name.end(), filter.begin(), filter.end(),
                                [](char a, char b) { return lower(a) == lower(b); });
    return it != name.end() || filter.empty();
}

bool isOwnTask(const std::string& name) {
    return name.rfind("StatsEndpoint", 0) == 0 || name.rfind("TaskSchedulerRenderJson", 0) == 0;
}

std::vector<TableLine> buildTable(const std::vector<ThreadView>& threads,
                                  const ViewOptions& options) {
    return TableBuilder(threads, options).build();
}

}  // namespace VelikTop
