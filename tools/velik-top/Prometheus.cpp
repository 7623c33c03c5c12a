#include "Prometheus.h"

namespace VelikTop {

Velik::MetricsThreadFigures metricsFigures(const ThreadSnapshot& thread) {
    Velik::MetricsThreadFigures out;
    out.thread = thread.thread;
    for (const SchedulerRow& s : thread.schedulers) {
        Velik::MetricsSchedulerFigures f;
        f.name = s.name;
        f.maxSlipSeconds = s.maxSlip;
        for (const auto& [priority, c] : s.priorities) {
            f.priorities.push_back({priority, c.runnable, c.idle, c.completed, c.runs});
        }
        out.schedulers.push_back(std::move(f));
    }
    for (const TaskRow& row : thread.tasks) {
        if (row.standIn) {
            continue;  // no figures of its own
        }
        Velik::MetricsTaskRecord r;
        r.scheduler = row.scheduler;
        r.name = row.name;
        r.completed = row.completed;
        r.runs = row.runCount;
        r.runSeconds = row.totalRunTime;
        r.runMaxSeconds = static_cast<double>(row.maxMs) / 1000.0;
        r.latencyMaxSeconds = row.maxLatency;
        r.qv200 = row.qv200;
        r.qv500 = row.qv500;
        r.completedCount = row.completedCount;
        r.workTotal = row.workTotal;
        r.workPending = row.workPending;
        out.tasks.push_back(std::move(r));
    }
    return out;
}

std::string prometheusText(const std::vector<ThreadSnapshot>& threads) {
    std::vector<Velik::MetricsThreadFigures> figures;
    figures.reserve(threads.size());
    for (const ThreadSnapshot& t : threads) {
        figures.push_back(metricsFigures(t));
    }
    return Velik::prometheusExposition(figures);
}

}  // namespace VelikTop
