#include "Velik/TaskStat.h"

#include "Velik/Assert.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace Velik {

namespace {

// Takes `other`'s mark when it has a value above this one's (none counts as
// 0).
void raiseMark(TaskMaybeU32& mine, TaskMaybeU32 other) {
    if (other.hasValue() && other.value() > mine.valueOrZero()) {
        mine = other;
    }
}

}  // namespace

TaskStat::TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority, std::uint32_t runCount,
                   TaskTimeDuration totalRunTime, std::uint64_t workCountTotal,
                   float workCountDecayAvg, TaskMaybeU32 workCountHighWaterMark,
                   std::uint32_t workPending, TaskMaybeU32 workPendingHighWaterMark,
                   std::uint32_t quantumViolation500, std::uint32_t quantumViolation200,
                   TaskTimeDuration runTimeHighWaterMark, TaskTimeDuration lastSchedulingLatency,
                   TaskTimeDuration schedulingLatencyHighWaterMark, TaskStatus status)
    : name_(std::move(name)),
      key_(key),
      priority_(priority),
      status_(status),
      runCount_(runCount),
      totalRunTime_(totalRunTime),
      workCountTotal_(workCountTotal),
      workCountDecayAvg_(workCountDecayAvg),
      workCountHighWaterMark_(workCountHighWaterMark),
      workPending_(workPending),
      workPendingHighWaterMark_(workPendingHighWaterMark),
      quantumViolation500_(quantumViolation500),
      quantumViolation200_(quantumViolation200),
      runTimeHighWaterMark_(runTimeHighWaterMark),
      lastSchedulingLatency_(lastSchedulingLatency),
      schedulingLatencyHighWaterMark_(schedulingLatencyHighWaterMark) {}

TaskStat& TaskStat::operator+=(const TaskStat& other) {
    VELIK_CLASS_ASSERT(name_ == other.name_, "{} != {}", name_, other.name_);
    runCount_ += other.runCount_;
    totalRunTime_ += other.totalRunTime_;
    workCountTotal_ += other.workCountTotal_;
    quantumViolation500_ += other.quantumViolation500_;
    quantumViolation200_ += other.quantumViolation200_;
    // The latest task's view of the moment wins.
    workCountDecayAvg_ = other.workCountDecayAvg_;
    workPending_ = other.workPending_;
    lastSchedulingLatency_ = other.lastSchedulingLatency_;
    raiseMark(workCountHighWaterMark_, other.workCountHighWaterMark_);
    raiseMark(workPendingHighWaterMark_, other.workPendingHighWaterMark_);
    runTimeHighWaterMark_ = std::max(runTimeHighWaterMark_, other.runTimeHighWaterMark_);
    schedulingLatencyHighWaterMark_ =
        std::max(schedulingLatencyHighWaterMark_, other.schedulingLatencyHighWaterMark_);
    ++completedCount_;
    status_ = other.status_;
    return *this;
}

std::string TaskStat::taskStatusString() const {
    char first = ' ';
    if (status_.taskCurrentlyRunning()) {
        first = '*';
    } else if (status_.taskSuspended()) {
        first = 'S';
    } else if (status_.taskTimer()) {
        first = status_.taskTimerRunning() ? 'T' : 't';
    }
    char second = oneChar(priority_);
    if (!status_.taskOnRunQueue()) {
        second = static_cast<char>(std::tolower(static_cast<unsigned char>(second)));
    }
    return std::string{first, second};
}

TaskStat TaskImpl::getStats() const {
    return TaskStat(taskStatsName(), taskKey(), taskPriority(), taskRunCount_, taskTotalRunTime_,
                    workCountTotal_, workCountDecayAvg_, workCountHighWaterMark_, workPending_,
                    workPendingHighWaterMark_, qv500_, qv200_, taskMaxRunTime_,
                    lastSchedulingLatency_, schedulingLatencyHighWaterMark_, taskStatus());
}

}  // namespace Velik
