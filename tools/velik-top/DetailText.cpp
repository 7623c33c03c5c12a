#include "DetailText.h"

#include "Histograms.h"
#include "StallText.h"
#include "TableText.h"

#include <fmt/format.h>

namespace VelikTop {
namespace {

std::string rate(const TaskRates& r, double value) {
    return r.known ? formatCount(value) : "-";
}

void figures(const TableLine& line, std::vector<std::string>& out) {
    const TaskRow& row = *line.row;
    const TaskRates& r = line.rates;
    std::string head = "TASK " + row.name;
    if (line.merged > 1) {
        head += fmt::format(" x{}", line.merged);
    }
    out.push_back(fmt::format("{}  thread {}  scheduler {}{}", head, line.thread->thread,
                              row.scheduler, row.address.empty() ? "" : "  at " + row.address));
    out.push_back(fmt::format("  status/priority  {}  {}{}", row.statusLetters(), row.priority,
                              line.stale ? "  (stale figures)" : ""));
    out.push_back(fmt::format(
        "  runs             {}  runs/s {}  time {}  run time {}",
        formatCount(static_cast<double>(row.runCount)), rate(r, r.runsPerSecond),
        r.known ? fmt::format("{:.1f}%", r.share * 100) : "-", formatSeconds(row.totalRunTime)));
    out.push_back(fmt::format("  latency          last {}  max {}  longest run {}",
                              formatSeconds(row.lastLatency), formatSeconds(row.maxLatency),
                              formatSeconds(static_cast<double>(row.maxMs) / 1000)));
    out.push_back(fmt::format("  violations       qv200 {}  qv500 {}  since last refresh {}",
                              row.qv200, row.qv500,
                              r.known ? std::to_string(r.violationsGained) : std::string("-")));
    if (row.workTotal || row.workPending) {
        out.push_back(fmt::format("  work             total {}  per s {}  pending {}",
                                  row.workTotal ? std::to_string(*row.workTotal) : "-",
                                  rate(r, r.workPerSecond),
                                  row.workPending ? std::to_string(*row.workPending) : "-"));
    }
}

void histograms(const TableLine& line, std::vector<std::string>& out) {
    const TaskRow& row = *line.row;
    const RunHistograms* h = nullptr;
    std::string of;
    if (line.histograms) {
        h = histogramsOf(*line.histograms, row, *line.thread);
        of = row.isGroup ? "the group" : "this task";
        if (!h && !row.isGroup) {
            const auto it = line.histograms->schedulers.find(row.scheduler);
            h = it == line.histograms->schedulers.end() ? nullptr : &it->second;
            of = "scheduler " + row.scheduler;
        }
    }
    if (!h) {
        out.push_back("HISTOGRAMS: none kept for this task or its scheduler");
        return;
    }
    out.push_back(fmt::format("{:<26} {:>8} {:>8} {:>8} {:>8} {:>8} {:>6}", "HISTOGRAMS of " + of,
                              "p50", "p90", "p99", "p99.9", "max", "count"));
    const auto add = [&out](const char* what, const std::optional<Quantiles>& q) {
        if (q) {
            out.push_back(fmt::format("  {:<24} {:>8} {:>8} {:>8} {:>8} {:>8} {:>6}", what,
                                      formatSeconds(q->p50), formatSeconds(q->p90),
                                      formatSeconds(q->p99), formatSeconds(q->p999),
                                      formatSeconds(q->max), formatCount(double(q->count))));
        }
    };
    add("scheduling latency", h->latency);
    add("run time", h->runTime);
    add("timer lateness", h->timerLateness);
}

}  // namespace

std::vector<std::string> detailLines(const DetailSources& d) {
    std::vector<std::string> out;
    const TableLine& line = *d.line;
    const std::string& name = line.row->name;
    figures(line, out);
    histograms(line, out);

    const auto events = taskHistory(d.history, *line.thread, name, d.events);
    out.push_back(events.empty() ? "RECENT EVENTS: none of this task in the history"
                                 : "RECENT EVENTS of this task (newest first)");
    out.insert(out.end(), events.begin(), events.end());

    std::vector<std::string> stalls;
    if (d.stalls) {
        for (const StallEntry& e : stallEntries(*d.stalls)) {
            if (e.stall->task == name) {
                stalls.push_back("  " + stallLine(e));
            }
        }
    }
    out.push_back(stalls.empty() ? "STALLS: none recorded in this task" : "STALLS of this task");
    out.insert(out.end(), stalls.begin(), stalls.end());

    if (!d.waits) {
        return out;  // a daemon without coroutine waits to tell
    }
    std::vector<std::string> waits;
    for (const WaitEntry& w : *d.waits) {
        if (w.name == name && (w.scheduler.empty() || w.scheduler == line.row->scheduler)) {
            waits.push_back(
                fmt::format("  waits on {}{}", w.wait, w.detail.empty() ? "" : ": " + w.detail));
        }
    }
    out.push_back(waits.empty() ? "WAITS: not a coroutine task waiting now" : "WAITS");
    out.insert(out.end(), waits.begin(), waits.end());
    return out;
}

}  // namespace VelikTop
