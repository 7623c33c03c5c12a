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
                children_[{t, tasks[r].depth == 0 ? std::string() : tasks[r].scope}].push_back(
                    {t, r});
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
        return children_[{e.thread, rowOf(e).childScope}];
    }

    // Whether the row or, for a group, any task below it passes the filter.
    bool shown(const Entry& e) {
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

    // `inMatch`: a group above matched the filter, so all of it shows.
    void emit(std::vector<Entry> level, bool inMatch) {
        std::sort(level.begin(), level.end(),
                  [this](const Entry& a, const Entry& b) { return before(a, b); });
        for (const Entry& e : level) {
            if (!inMatch && !shown(e)) {
                continue;
            }
            const TaskRow& row = rowOf(e);
            TableLine line{threads_[e.thread].snapshot,
                           &row,
                           ratesOf(e),
                           false,
                           {},
                           threads_[e.thread].staleSeconds.has_value()};
            if (row.isGroup) {
                line.groupKey = groupKey(e);
                line.folded = options_.folded(line.groupKey);
            }
            lines_.push_back(line);
            if (row.isGroup && !line.folded) {
                emit(childrenOf(e), inMatch || nameMatches(row.name, options_.filter));
            }
        }
    }

    bool before(const Entry& a, const Entry& b) const {
        const TaskRow& x = rowOf(a);
        const TaskRow& y = rowOf(b);
        const auto tie = [&] {
            return std::tie(x.name, x.address, threads_[a.thread].snapshot->thread, a.row) <
                   std::tie(y.name, y.address, threads_[b.thread].snapshot->thread, b.row);
        };
        switch (options_.sort) {
            case SortKey::share: {
                const TaskRates p = ratesOf(a), q = ratesOf(b);
                // Before rates are known, the run time so far stands in.
                const double u = p.known ? p.share : x.totalRunTime;
                const double v = q.known ? q.share : y.totalRunTime;
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

std::vector<TableLine> buildTable(const std::vector<ThreadView>& threads,
                                  const ViewOptions& options) {
    return TableBuilder(threads, options).build();
}

}  // namespace VelikTop
