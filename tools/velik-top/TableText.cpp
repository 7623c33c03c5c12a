#include "TableText.h"

#include "Histograms.h"
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

std::string pad(std::string text, std::size_t width, bool left) {
    const std::size_t have = displayWidth(text);
    if (have >= width) {
        return text;
    }
    const std::string fill(width - have, ' ');
    return left ? text + fill : fill + text;
}

// The task's cell, its name cut to leave the rest within `width` (0: whole).
std::string taskColumn(const TableLine& line, std::size_t width) {
    const TaskRow& row = *line.row;
    std::string head;
    if (!line.flat) {
        head.assign(static_cast<std::size_t>(std::max(row.depth, 0)) * 2, ' ');
        head += row.isGroup ? (line.folded ? "[+] " : "[-] ") : "    ";
    }
    std::string tail;
    if (line.merged > 1) {
        tail = fmt::format(" x{}", line.merged);
    }
    if (row.completed) {
        tail += fmt::format(" (completed x{})", row.completedCount);
    }
    std::string name = printable(row.name);
    const std::size_t around = displayWidth(head) + displayWidth(tail);
    if (width && around + displayWidth(name) > width) {
        const std::size_t room = width > around + 1 ? width - around - 1 : 0;
        name = cutCells(name, room) + "~";
    }
    return head + name + tail;
}

std::string quantile(const TableLine& line, double Quantiles::*which, bool timer) {
    if (!line.histograms) {
        return "-";
    }
    const RunHistograms* h = histogramsOf(*line.histograms, *line.row, *line.thread);
    const std::optional<Quantiles>& q =
        h ? (timer ? h->timerLateness : h->latency) : std::optional<Quantiles>{};
    return q && q->count ? formatSeconds((*q).*which) : "-";
}

// The view's settings that differ from the default, for the summary.
std::string viewFlags(const ViewOptions& options) {
    std::string flags;
    const auto add = [&flags](const char* flag) {
        flags += flags.empty() ? "  view: " : ", ";
        flags += flag;
    };
    if (options.flat) {
        add("flat");
    }
    if (options.merge != MergeMode::crowds) {
        add(options.merge == MergeMode::all ? "merge: all" : "merge: off");
    }
    if (options.hideIdle) {
        add("idle hidden");
    }
    if (options.showOwn) {
        add("own shown");
    }
    return flags;
}

// "  lat p50 12.0us p99 4.56ms  timers p99 1.20ms" of the root scheduler.
std::string rootQuantiles(const HistogramSet* set) {
    const auto it = set ? set->schedulers.find(set->root) : decltype(set->schedulers.end()){};
    if (!set || it == set->schedulers.end()) {
        return {};
    }
    std::string out;
    if (const auto& q = it->second.latency; q && q->count) {
        out += fmt::format("  lat p50 {} p99 {}", formatSeconds(q->p50), formatSeconds(q->p99));
    }
    if (const auto& q = it->second.timerLateness; q && q->count) {
        out += fmt::format("  timers p99 {}", formatSeconds(q->p99));
    }
    return out;
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

std::string cutCells(const std::string& text, std::size_t width) {
    std::size_t cells = 0, i = 0;
    for (; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xc0) != 0x80 && cells++ == width) {
            break;
        }
    }
    return text.substr(0, i);
}

std::size_t displayWidth(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

TableLayout::TableLayout(const std::vector<TableLine>& lines, std::vector<Column> columns,
                         std::size_t width, std::size_t skip)
    : width_(width) {
    columns_.push_back(Column::task);
    std::size_t figures = 0;
    for (const Column c : columns) {
        if (c != Column::task && figures++ >= skip) {
            columns_.push_back(c);
        }
    }
    std::size_t longest = taskWidth_;
    for (const TableLine& line : lines) {
        threadWidth_ =
            std::max(threadWidth_, std::min(maxThreadColumn, line.thread->thread.size()));
        schedulerWidth_ =
            std::max(schedulerWidth_, std::min(maxSchedulerColumn, line.row->scheduler.size()));
        longest = std::max(longest, displayWidth(taskColumn(line, 0)));
    }
    taskWidth_ = longest;
    if (width_) {
        std::size_t others = 0;
        for (std::size_t i = 1; i < columns_.size(); ++i) {
            const Column c = columns_[i];
            others += 1 + (c == Column::thread      ? threadWidth_
                           : c == Column::scheduler ? schedulerWidth_
                                                    : columnInfo(c).width);
        }
        const std::size_t room = width_ > others ? width_ - others : 0;
        taskWidth_ = std::min({longest, std::max(minTaskWidth, room), width_});
    }
}

std::string TableLayout::fit(std::string text) const {
    if (width_) {
        text = cutCells(text, width_);
    }
    while (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
    return text;
}

std::string TableLayout::heading() const {
    std::string s = pad("TASK", taskWidth_, true);
    for (std::size_t i = 1; i < columns_.size(); ++i) {
        const ColumnInfo& c = columnInfo(columns_[i]);
        const std::size_t w = c.id == Column::thread      ? threadWidth_
                              : c.id == Column::scheduler ? schedulerWidth_
                                                          : c.width;
        s += ' ' + pad(c.title, w, c.leftAligned);
    }
    return fit(s);
}

std::string TableLayout::line(const TableLine& line) const {
    const TaskRow& row = *line.row;
    const TaskRates& r = line.rates;
    std::string s = pad(taskColumn(line, taskWidth_), taskWidth_, true);
    for (std::size_t i = 1; i < columns_.size(); ++i) {
        const ColumnInfo& c = columnInfo(columns_[i]);
        std::string cell;
        std::size_t w = c.width;
        switch (c.id) {
            case Column::task:
                break;
            case Column::status:
                cell = row.statusLetters();
                break;
            case Column::runs:
                cell = rate(r, r.runsPerSecond);
                break;
            case Column::share:
                cell = r.known ? fmt::format("{:.1f}", r.share * 100) : "-";
                break;
            case Column::maxLatency:
                cell = formatSeconds(row.maxLatency);
                break;
            case Column::qv200:
                cell = formatCount(static_cast<double>(row.qv200));
                break;
            case Column::qv500:
                cell = formatCount(static_cast<double>(row.qv500));
                break;
            case Column::latencyP50:
                cell = quantile(line, &Quantiles::p50, false);
                break;
            case Column::latencyP99:
                cell = quantile(line, &Quantiles::p99, false);
                break;
            case Column::work:
                cell = row.workTotal ? rate(r, r.workPerSecond) : "";
                break;
            case Column::pending:
                cell = row.workPending ? formatCount(static_cast<double>(*row.workPending)) : "";
                break;
            case Column::lastLatency:
                cell = formatSeconds(row.lastLatency);
                break;
            case Column::maxRun:
                cell = formatSeconds(static_cast<double>(row.maxMs) / 1000);
                break;
            case Column::timerP99:
                cell = quantile(line, &Quantiles::p99, true);
                break;
            case Column::scheduler:
                w = schedulerWidth_;
                cell = printable(cut(row.scheduler, w));
                break;
            case Column::thread:
                w = threadWidth_;
                cell = printable(cut(line.thread->thread, w));
                break;
        }
        s += ' ' + pad(cell, w, c.leftAligned);
    }
    return fit(s);
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
    if (options.inverted) {
        head += ", inverted";
    }
    if (!options.filter.empty()) {
        head += fmt::format("  filter: \"{}\"", options.filter);
    }
    head += viewFlags(options);
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
        line += rootQuantiles(t.histograms);
        if (t.staleSeconds) {
            line += "  " + staleMarker(*t.staleSeconds);
        }
        out.push_back(std::move(line));
    }
    return out;
}

}  // namespace VelikTop
