// Run histograms: a scheduler's, filled by its runs, and a task's own.
#include "Velik/RunHistograms.h"

#include "Velik/TaskScheduler.h"

namespace Velik {

void RunHistogramsDelete::operator()(RunHistograms* histograms) const {
    delete histograms;
}

// --- The scheduler's ---

void TaskScheduler::runHistogramsIs(bool on) {
    if (on == (runHistograms_ != nullptr)) {
        return;
    }
    runHistograms_.reset(on ? new RunHistograms : nullptr);
}

void TaskScheduler::runHistogramsRecord(TaskImpl& task, TaskTimeDuration latency,
                                        TaskTimeDuration elapsed) {
    runHistograms_->runTime.record(elapsed.count());
    runHistograms_->latency.record(latency.count());
    if (RunHistograms* own = task.taskHistograms()) [[unlikely]] {
        own->runTime.record(elapsed.count());
        own->latency.record(latency.count());
    }
}

void TaskScheduler::timerLatenessRecord(TaskImpl& task, TaskTimeDuration lateness) {
    if (runHistograms_) {
        runHistograms_->timerLateness.record(lateness.count());
    }
    if (RunHistograms* own = task.taskHistograms()) {
        own->timerLateness.record(lateness.count());
    }
}

// --- A task's own ---

void TaskImpl::taskHistogramsIs(bool on) {
    if (on == (taskHistograms_ != nullptr)) {
        return;
    }
    taskHistograms_.reset(on ? new RunHistograms : nullptr);
}

void TaskImpl::taskResetStats() {
    taskRunCount_ = 0;
    taskTotalRunTime_ = TaskTimeDuration(0);
    workCountTotal_ = 0;
    workCountDecayAvg_ = 0.0f;
    workPending_ = 0;
    qv500_ = 0;
    qv200_ = 0;
    taskMaxRunTime_ = TaskTimeDuration(0);
    lastSchedulingLatency_ = TaskTimeDuration(0);
    schedulingLatencyHighWaterMark_ = TaskTimeDuration(0);
    workCountHighWaterMark_.clear();
    workPendingHighWaterMark_.clear();
    if (taskHistograms_) {
        taskHistograms_->clear();
    }
    handleResetStats();
}

}  // namespace Velik
