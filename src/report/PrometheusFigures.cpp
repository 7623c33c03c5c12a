// A snapshot's figures as the plain model of the Prometheus exposition.
#include "Velik/PrometheusExposition.h"
#include "Velik/RunHistograms.h"
#include "Velik/TaskSchedulerRoot.h"
#include "Velik/TaskSchedulerSnapshot.h"

#include <map>
#include <string_view>

namespace Velik {

namespace {

double seconds(TaskTimeDuration ns) {
    return static_cast<double>(ns.count()) / 1e9;
}

MetricsTaskRecord recordOf(const std::string& scheduler, const TaskStat& s, bool completed) {
    MetricsTaskRecord r;
    r.scheduler = scheduler;
    r.name = s.taskName();
    r.completed = completed;
    r.runs = s.taskRunCount();
    r.runSeconds = seconds(s.taskTotalRunTime());
    r.runMaxSeconds = seconds(s.taskRunTimeHighWaterMark());
    r.latencyMaxSeconds = seconds(s.taskSchedulingLatencyHighWaterMark());
    r.qv200 = s.taskQuantumViolation200();
    r.qv500 = s.taskQuantumViolation500();
    r.completedCount = s.taskCompletedCount();
    if (s.taskWorkCountHighWaterMark().hasValue()) {
        r.workTotal = s.taskWorkCountTotal();
    }
    if (s.taskWorkPendingHighWaterMark().hasValue()) {
        r.workPending = s.taskWorkPending();
    }
    return r;
}

void addScheduler(MetricsThreadFigures& out, const TaskSchedulerSnapshot& snapshot) {
    MetricsSchedulerFigures f;
    f.name = snapshot.schedulerName;
    f.maxSlipSeconds = snapshot.maxSchedulerSlip;
    for (const auto& [priority, stats] : snapshot.queueStats) {
        f.priorities.push_back({toStrep(priority), stats.runnableTasks, stats.idleTasks,
                                stats.completedTasks, stats.totalRunCount});
    }
    out.schedulers.push_back(std::move(f));
    for (const TaskStat& s : snapshot.tasks) {
        out.tasks.push_back(recordOf(snapshot.schedulerName, s, false));
    }
    for (const TaskStat& s : snapshot.completedTasks) {
        out.tasks.push_back(recordOf(snapshot.schedulerName, s, true));
    }
    for (const auto& [key, sub] : snapshot.subSchedulers) {
        addScheduler(out, *sub);
    }
}

// The histograms are read from the live schedulers rather than carried by
// the snapshot, whose layout is that of the JSON document. The exposition
// merges schedulers of one name into one series, so their histograms are
// summed here and given to the first figures of that name.
void addHistograms(MetricsThreadFigures& out, const TaskSchedulerRoot& root) {
    std::map<std::string_view, RunHistograms> byName;
    for (const TaskScheduler* scheduler : root.schedulers()) {
        if (const RunHistograms* h = scheduler->runHistograms()) {
            RunHistograms& sum = byName[scheduler->schedulerName().view()];
            sum.runTime.merge(h->runTime);
            sum.latency.merge(h->latency);
            sum.timerLateness.merge(h->timerLateness);
        }
    }
    for (MetricsSchedulerFigures& f : out.schedulers) {
        const auto it = byName.find(f.name);
        if (it == byName.end()) {
            continue;
        }
        f.runTime = metricsHistogramOf(it->second.runTime);
        f.latency = metricsHistogramOf(it->second.latency);
        f.timerLateness = metricsHistogramOf(it->second.timerLateness);
        byName.erase(it);
    }
}

}  // namespace

MetricsThreadFigures metricsFiguresOf(const TaskSchedulerSnapshot& snapshot, std::string thread) {
    MetricsThreadFigures out;
    out.thread = std::move(thread);
    addScheduler(out, snapshot);
    return out;
}

MetricsThreadFigures metricsFiguresOf(const TaskSchedulerRoot& root, std::string thread) {
    // No history: the exposition has no use for it.
    MetricsThreadFigures out =
        metricsFiguresOf(*root.snapshot(true, true, false), std::move(thread));
    addHistograms(out, root);
    return out;
}

}  // namespace Velik
