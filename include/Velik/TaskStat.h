// A task's statistics by value.
//
// A `TaskStat` is a copy of the counters a task keeps, taken with
// `TaskImpl::getStats()`. It can be stored, merged and rendered without
// touching the live task, which may have been deleted meanwhile:
//
//   std::vector<Velik::TaskStat> stats;
//   scheduler->getTaskStats(&stats, false);
//   for (const Velik::TaskStat& s : stats) {
//       fmt::print("{} {} {}\n", s.taskStatusString(), s.taskName(), s.taskRunCount());
//   }
//
// Records of finished tasks that share a stats name are summed with
// `operator+=` into one completed record (see `TaskScheduler`).
#pragma once

#include <Velik/ConstStringCache.h>
#include <Velik/Task.h>
#include <Velik/TaskMaybeU32.h>
#include <Velik/TaskPriority.h>
#include <Velik/TaskStatus.h>
#include <Velik/TaskTime.h>

#include <cstdint>
#include <string>
#include <utility>

namespace Velik {

class TaskStat {
  public:
    static constexpr const char* traceClassName = "TaskStat";
    using TaskStatus = Velik::TaskStatus;

    // All counters zero, both marks without a value, no name.
    TaskStat() = default;
    TaskStat(const TaskStat&) = default;
    TaskStat& operator=(const TaskStat&) = default;
    // Every field; `completedCount` starts at 0.
    TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority, std::uint32_t runCount,
             TaskTimeDuration totalRunTime, std::uint64_t workCountTotal, float workCountDecayAvg,
             TaskMaybeU32 workCountHighWaterMark, std::uint32_t workPending,
             TaskMaybeU32 workPendingHighWaterMark, std::uint32_t quantumViolation500,
             std::uint32_t quantumViolation200, TaskTimeDuration runTimeHighWaterMark,
             TaskTimeDuration lastSchedulingLatency,
             TaskTimeDuration schedulingLatencyHighWaterMark, TaskStatus status);

    // Folds `other`, a record of a task that finished later, into this
    // completed record: counts add up, marks keep the larger, the latest
    // values and status come from `other`, and `completedCount` grows by one.
    // Both must have the same name; otherwise asserts "<this> != <other>".
    TaskStat& operator+=(const TaskStat& other);

    // Two characters. First: "*" running, else "S" suspended, else "T" armed
    // timer, "t" idle timer, else a blank. Second: the priority letter, upper
    // case when the task is on a run queue, lower case otherwise.
    std::string taskStatusString() const;

    // --- Fields ---

    std::string taskName() const { return name_.str(); }
    const ConstStringRef& taskNameRef() const { return name_; }
    void taskNameIs(ConstStringRef name) { name_ = std::move(name); }
    TaskKey taskKey() const { return key_; }
    TaskPriority taskPriority() const { return priority_; }
    TaskStatus taskStatus() const { return status_; }
    void taskStatusIs(TaskStatus status) { status_ = status; }

    std::uint32_t taskRunCount() const { return runCount_; }
    void taskRunInc(std::uint32_t n) { runCount_ += n; }
    TaskTimeDuration taskTotalRunTime() const { return totalRunTime_; }
    void taskTotalRunTimeInc(TaskTimeDuration d) { totalRunTime_ += d; }
    std::uint64_t taskWorkCountTotal() const { return workCountTotal_; }
    void taskWorkCountTotalInc(std::uint64_t n) { workCountTotal_ += n; }
    float taskWorkCountDecayAvg() const { return workCountDecayAvg_; }
    TaskMaybeU32 taskWorkCountHighWaterMark() const { return workCountHighWaterMark_; }
    std::uint32_t taskWorkPending() const { return workPending_; }
    TaskMaybeU32 taskWorkPendingHighWaterMark() const { return workPendingHighWaterMark_; }
    std::uint32_t taskQuantumViolation500() const { return quantumViolation500_; }
    void taskQuantumViolation500Inc(std::uint32_t n) { quantumViolation500_ += n; }
    std::uint32_t taskQuantumViolation200() const { return quantumViolation200_; }
    void taskQuantumViolation200Inc(std::uint32_t n) { quantumViolation200_ += n; }
    TaskTimeDuration taskRunTimeHighWaterMark() const { return runTimeHighWaterMark_; }
    void taskRunTimeHighWaterMarkIs(TaskTimeDuration d) { runTimeHighWaterMark_ = d; }
    TaskTimeDuration taskLastSchedulingLatency() const { return lastSchedulingLatency_; }
    void taskLastSchedulingLatencyIs(TaskTimeDuration d) { lastSchedulingLatency_ = d; }
    TaskTimeDuration taskSchedulingLatencyHighWaterMark() const {
        return schedulingLatencyHighWaterMark_;
    }
    void taskSchedulingLatencyHighWaterMarkIs(TaskTimeDuration d) {
        schedulingLatencyHighWaterMark_ = d;
    }
    // How many finished tasks this record sums; 0 for a live task.
    std::uint32_t taskCompletedCount() const { return completedCount_; }
    void taskCompletedCountInc(std::uint32_t n) { completedCount_ += n; }
    void taskCompletedCountIs(std::uint32_t n) { completedCount_ = n; }

  private:
    ConstStringRef name_;
    TaskKey key_;
    TaskPriority priority_ = TaskPriority::absolute;
    TaskStatus status_;
    std::uint32_t runCount_ = 0;
    TaskTimeDuration totalRunTime_{0};
    std::uint64_t workCountTotal_ = 0;
    float workCountDecayAvg_ = 0.0f;
    TaskMaybeU32 workCountHighWaterMark_;
    std::uint32_t workPending_ = 0;
    TaskMaybeU32 workPendingHighWaterMark_;
    std::uint32_t quantumViolation500_ = 0;
    std::uint32_t quantumViolation200_ = 0;
    TaskTimeDuration runTimeHighWaterMark_{0};
    TaskTimeDuration lastSchedulingLatency_{0};
    TaskTimeDuration schedulingLatencyHighWaterMark_{0};
    std::uint32_t completedCount_ = 0;
};

}  // namespace Velik
