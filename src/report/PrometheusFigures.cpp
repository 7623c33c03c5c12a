// A snapshot's figures as the plain model of the Prometheus exposition.
#include "Velik/PrometheusExposition.h"
#include "Velik/TaskSchedulerSnapshot.h"

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
    // Histograms: the scheduler's `runTime`, `latency` and `timerLateness`
    // histograms are read here, with `metricsHistogramOf`, once the snapshot
    // carries them:
    //   f.runTime = metricsHistogramOf(snapshot.runTime); ...
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

}  // namespace

MetricsThreadFigures metricsFiguresOf(const TaskSchedulerSnapshot& snapshot, std::string thread) {
    MetricsThreadFigures out;
    out.thread = std::move(thread);
    addScheduler(out, snapshot);
    return out;
}

}  // namespace Velik
