#include "TableText.h"

#include "report/StatsPrintable.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>

namespace VelikTop {
namespace {

// Long thread and scheduler names are cut so the task names keep their room.
constexpr std::size_t maxThreadColumn = 12;
constexpr std::size_t maxSchedulerColumn = 16;

std::string cut(const std::string& s, std::size_t width) {
    return s.substr(0, width);
}

std::string rate(const TaskRates& r, double value) {
    return r.known ? formatCount(value) : "-";
}

std::string taskColumn(const TableLine& line) {
    const TaskRow& row = *line.row;
    std::string s(static_cast<std::size_t>(std::max(row.depth, 0)) * 2, ' ');
    s += row.isGroup ? (line.folded ? "[+] " : "[-] ") : "    ";
    s += printable(row.name);
    if (row.completed) {
        s += fmt::format(" (completed x{})", row.completedCount);
    }
    return s;
}

}  // namespace

std::string printable(std::string_view text) {
    return Velik::Impl::printableText(text);
}

std::string staleMarker(double seconds) {
    return fmt::format("stale {}s", static_cast<long long>(std::max(seconds, 0.0)));
}

std::string formatCount(double value) {
    if (value < 0) {
        value = 0;
    }
    if (value < 1000) {
        return value == static_cast<double>(static_cast<long long>(value))
                   ? fmt::format("{}", static_cast<long long>(value))
                   : fmt::format("{:.1f}", value);
    }
    static const char* const units[] = {"k", "M", "G", "T"};
    int unit = -1;
    while (value >= 999.95 && unit < 3) {
        value /= 1000;
        ++unit;
    }
    if (value < 99.995) {
        return fmt::format("{:.2f}{}", value, units[unit]);
    }
    return fmt::format("{:.1f}{}", value, units[unit]);
}

std::string formatSeconds(double seconds) {
    if (seconds <= 0) {
        return "0";
    }
    if (seconds < 1e-6) {
        return fmt::format("{:.0f}ns", seconds * 1e9);
    }
    if (seconds < 1e-3) {
        return fmt::format("{:.1f}us", seconds * 1e6);
    }
    if (seconds < 1) {
        return fmt::format("{:.2f}ms", seconds * 1e3);
    }
    return fmt::format("{:.2f}s", seconds);
}

TableLayout::TableLayout(const std::vector<TableLine>& lines, bool showThread)
    : showThread_(showThread) {
    for (const TableLine& line : lines) {
        threadWidth_ =
            std::max(threadWidth_, std::min(maxThreadColumn, line.thread->thread.size()));
        schedulerWidth_ =
            std::max(schedulerWidth_, std::min(maxSchedulerColumn, line.row->scheduler.size()));
    }
}

std::string TableLayout::heading() const {
    std::string s = showThread_ ? fmt::format("{:<{}} ", "THREAD", threadWidth_) : std::string();
    s += fmt::format("{:<{}} {:2} {:>7} {:>6} {:>8} {:>8} {:>8} {:>5} {:>5} {:>7} {:>6} {}",
                     "SCHEDULER", schedulerWidth_, "SP", "RUN/s", "TIME%", "LAST-LAT", "MAX-LAT",
                     "MAX-RUN", "QV200", "QV500", "WORK/s", "PEND", "TASK");
    return s;
}

std::string TableLayout::line(const TableLine& line) const {
    const TaskRow& row = *line.row;
    const TaskRates& r = line.rates;
    std::string s = showThread_
                        ? fmt::format("{:<{}} ", printable(cut(line.thread->thread, threadWidth_)),
                                      threadWidth_)
                        : std::string();
    s += fmt::format("{:<{}} {:2} {:>7} {:>6} {:>8} {:>8} {:>8} {:>5} {:>5} {:>7} {:>6} {}",
                     printable(cut(row.scheduler, schedulerWidth_)), schedulerWidth_,
                     row.statusLetters(), rate(r, r.runsPerSecond),
                     r.known ? fmt::format("{:.1f}", r.share * 100) : "-",
                     formatSeconds(row.lastLatency), formatSeconds(row.maxLatency),
                     formatSeconds(static_cast<double>(row.maxMs) / 1000), formatCount(row.qv200),
                     formatCount(row.qv500), row.workTotal ? rate(r, r.workPerSecond) : "",
                     row.workPending ? formatCount(static_cast<double>(*row.workPending)) : "",
                     taskColumn(line));
    return s;
}

std::vector<std::string> formatSummary(const std::vector<ThreadView>& threads,
                                       const ViewOptions& options, std::size_t shown,
                                       double intervalSeconds) {
    std::size_t tasks = 0;
    for (const ThreadView& t : threads) {
        tasks += static_cast<std::size_t>(
            std::count_if(t.snapshot->tasks.begin(), t.snapshot->tasks.end(),
                          [](const TaskRow& row) { return !row.completed; }));
    }
    char clock[16] = "";
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    if (localtime_r(&now, &local)) {
        std::strftime(clock, sizeof clock, "%H:%M:%S", &local);
    }
    std::string head = fmt::format(
        "velik-top {}  threads: {}  tasks: {}  shown: {}  interval: {:g} s  sort: {}", clock,
        threads.size(), tasks, shown, intervalSeconds, sortKeyName(options.sort));
    if (!options.filter.empty()) {
        head += fmt::format("  filter: \"{}\"", options.filter);
    }
    std::vector<std::string> out{head};
    for (const ThreadView& t : threads) {
        const ThreadSnapshot& snap = *t.snapshot;
        double slip = 0, runs = 0;
        std::uint64_t skipped = 0;
        for (const SchedulerRow& s : snap.schedulers) {
            slip = std::max(slip, s.maxSlip);
            skipped += s.skipped;
        }
        for (std::size_t i = 0; i < snap.tasks.size() && i < t.rates.size(); ++i) {
            if (!snap.tasks[i].isGroup && !snap.tasks[i].completed) {
                runs += t.rates[i].runsPerSecond;
            }
        }
        const bool known =
            std::any_of(t.rates.begin(), t.rates.end(), [](const TaskRates& r) { return r.known; });
        std::string line =
            fmt::format("thread {}: busy {}  runs/s {}  max slip {}  without runs {}", snap.thread,
                        known ? fmt::format("{:.1f}%", threadShare(snap, t.rates) * 100) : "-",
                        known ? formatCount(runs) : "-", formatSeconds(slip), skipped);
        if (t.staleSeconds) {
            line += "  " + staleMarker(*t.staleSeconds);
        }
        out.push_back(std::move(line));
    }
    return out;
}

}  // namespace VelikTop
