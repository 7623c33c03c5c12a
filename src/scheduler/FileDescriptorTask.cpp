#include "Velik/FileDescriptorTask.h"

#include "Velik/Assert.h"
#include "Velik/ConstStringCache.h"
#include "Velik/PlatformSelection.h"
#include "Velik/TaskScheduler.h"
#include "Velik/TaskSchedulerHistory.h"

#include <utility>

namespace Velik {

namespace {

constexpr const char* writeTaskMissing = "WriteTask not created by taskWatchWritableIs( true )";
constexpr const char* executingTaskSet = "Executing task already set";

// Applies `apply` to the read side, then to the write side if it exists.
template <typename Apply>
void forEachSide(const FileDescriptorTask& task, Apply apply) {
    apply(*task.readTask());
    if (task.writeTask()) {
        apply(*task.writeTask());
    }
}

}  // namespace

// --- The sides ---

FileDescriptorTask::ReadWriteTaskBase::ReadWriteTaskBase(FileDescriptorTask* parent,
                                                         std::string suffix)
    : Task(parent->scheduler(), parent->taskPriority(), parent->taskName().str() + suffix),
      parent_(parent) {
    if (!(parent->taskStatsName() == parent->taskName())) {
        TaskImpl::taskStatsNameIs(parent->taskStatsName().str() + suffix);
    }
}

void FileDescriptorTask::ReadWriteTaskBase::handleTaskBusy() {
    if (parent_) {
        parent_->taskBusyIs(parent_->taskScheduled(), taskSteadyNow());
    }
}

void FileDescriptorTask::ReadTask::taskExecute() {
    if (!parent()) {
        return;  // the parent went while this side was queued
    }
    // The handler may drop the last outside reference to its own task.
    const std::shared_ptr<_TaskBase> keepParent = parent()->taskOwner();
    parent()->resumeReads();
    parent()->_taskExecuteReadable();
}

void FileDescriptorTask::ReadTask::handleResetStats() {
    if (parent()) {
        parent()->handleResetStats();
    }
}

void FileDescriptorTask::WriteTask::taskExecute() {
    if (!parent()) {
        return;
    }
    const std::shared_ptr<_TaskBase> keepParent = parent()->taskOwner();
    parent()->_taskExecuteWritable();
}

// --- Construction and destruction ---

FileDescriptorTask::FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler,
                                       TaskPriority priority, std::string name)
    : _TaskBase(std::move(scheduler), priority, name),
      fdControl_(Platform::getFdControl(this)),
      readTask_(std::make_shared<ReadTask>(this)) {
    taskWatchReadableIs(true);
    taskWatchWritableIs(false);
}

FileDescriptorTask::FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority,
                                       std::string name)
    : FileDescriptorTask(scheduler ? scheduler->shared_from_this() : nullptr, priority,
                         std::move(name)) {}

FileDescriptorTask::~FileDescriptorTask() {
    // A side kept alive elsewhere (a run queue's current run) must not call
    // back into a task that is gone.
    readTask_->parent_ = nullptr;
    if (writeTask_) {
        writeTask_->parent_ = nullptr;
    }
}

// --- Task operations ---

void FileDescriptorTask::taskStatsNameIs(const std::string& name) {
    taskStatsName_ = ConstStringCache::forThisThread().intern(name);
    readTask_->TaskImpl::taskStatsNameIs(name + ":read");
    if (writeTask_) {
        writeTask_->TaskImpl::taskStatsNameIs(name + ":write");
    }
}

bool FileDescriptorTask::taskScheduled() const {
    return taskScheduledReadable() || taskScheduledWritable();
}

FileDescriptorTask::ReadWriteTaskBase& FileDescriptorTask::executingSide(
    const char* function) const {
    if (!executingTask_) [[unlikely]] {
        Impl::assertFailed(VELIK_SOURCE_NAME, __LINE__, true, function, traceClassName, "{}",
                           "Called outside taskExecuteReadable and taskExecuteWritable");
    }
    return *executingTask_;
}

bool FileDescriptorTask::taskShouldYield() const noexcept {
    return executingSide(__func__).taskShouldYield();
}

void FileDescriptorTask::taskWorkCountInc(std::uint64_t count) {
    executingSide(__func__).taskWorkCountInc(count);
}

void FileDescriptorTask::taskWorkPendingIs(std::uint32_t pending) {
    executingSide(__func__).taskWorkPendingIs(pending);
}

void FileDescriptorTask::taskBusyIs(bool busy, TaskTimePoint now) {
    if (busy == taskBusy_) {
        return;
    }
    taskBusy_ = busy;
    scheduler_->history()->insert(
        now, busy ? TaskSchedulerEventType::busy : TaskSchedulerEventType::idle, this);
    handleTaskBusy();
}

// --- Running the sides ---

void FileDescriptorTask::_taskExecuteReadable() {
    VELIK_CLASS_ASSERT(taskWatchReadable_, "{}", "ReadTask should only run if taskWatchReadable");
    VELIK_CLASS_ASSERT(executingTask_ == nullptr, "{}", executingTaskSet);
    runAs(readTask_.get(), &FileDescriptorTask::taskExecuteReadable);
}

void FileDescriptorTask::_taskExecuteWritable() {
    // One-shot: a handler with more to write asks again.
    taskWatchWritableIs(false);
    VELIK_CLASS_ASSERT(executingTask_ == nullptr, "{}", executingTaskSet);
    runAs(writeTask_.get(), &FileDescriptorTask::taskExecuteWritable);
}

void FileDescriptorTask::runAs(ReadWriteTaskBase* side, void (FileDescriptorTask::*handler)()) {
    // Cleared however the handler ends: a handler that threw must not lock
    // both sides out of their next runs.
    struct Executing {
        ReadWriteTaskBase*& slot;
        ~Executing() { slot = nullptr; }
    } executing{executingTask_};
    executingTask_ = side;
    (this->*handler)();
}

// --- Platform notifications ---

void FileDescriptorTask::checkNotification(bool watching, int fd, const char* function,
                                           const char* offMessage) const noexcept {
    if (!watching) [[unlikely]] {
        Impl::assertFailed(VELIK_SOURCE_NAME, __LINE__, true, function, traceClassName, "{}",
                           offMessage);
    }
    const int watched = taskWatchFd();
    if (fd != watched) [[unlikely]] {
        Impl::assertFailed(VELIK_SOURCE_NAME, __LINE__, true, function, traceClassName,
                           "Notified about {} watching {}", fd, watched);
    }
}

void FileDescriptorTask::readFdEvent(int fd) {
    checkNotification(taskWatchReadable_, fd, __func__,
                      "readFdEvent() called with taskWatchReadable off");
    scheduler_->history()->insert(taskSteadyNow(), TaskSchedulerEventType::fdReadable, this);
    if (readTask_->taskScheduled()) {
        // Reported again before the read side could run. One loop pass runs
        // one task, so with many such descriptors every pass would report
        // them all: quiet until the side runs. The first repeat is let be,
        // since a lone descriptor is reported once more in the very pass
        // that runs its side, and pausing costs the control two changes.
        if (++readRepeats_ >= 2) {
            readsPaused_ = true;
            fdControl_->setReads(false);
        }
        return;
    }
    readRepeats_ = 0;
    scheduleTaskReadable();
}

void FileDescriptorTask::resumeReads() {
    if (readsPaused_) {
        readsPaused_ = false;
        fdControl_->setReads(taskWatchReadable_);
    }
}

void FileDescriptorTask::writeFdEvent(int fd) {
    checkNotification(taskWatchWritable_, fd, __func__,
                      "writeFdEvent() called with taskWatchWritable off");
    scheduler_->history()->insert(taskSteadyNow(), TaskSchedulerEventType::fdWritable, this);
    scheduleTaskWritable();
}

// --- Watching ---

int FileDescriptorTask::taskWatchFd() const {
    return fdControl_->getFd();
}

void FileDescriptorTask::taskWatchFdIs(int fd) {
    if (fd == taskWatchFd()) {
        return;
    }
    // Work queued for the old descriptor is void.
    forEachSide(*this, [](TaskImpl& side) { side.unscheduleTask(); });
    resumeReads();
    fdControl_->setFd(fd);
}

void FileDescriptorTask::taskWatchFdDel() {
    forEachSide(*this, [](TaskImpl& side) { side.unscheduleTask(); });
    resumeReads();
    fdControl_->delFd();
}

void FileDescriptorTask::taskWatchReadableIs(bool watch) {
    if (watch == taskWatchReadable_) {
        return;
    }
    taskWatchReadable_ = watch;
    readsPaused_ = false;
    fdControl_->setReads(watch);
    if (!watch) {
        readTask_->unscheduleTask();
    }
}

void FileDescriptorTask::taskWatchWritableIs(bool watch) {
    if (watch == taskWatchWritable_) {
        return;
    }
    checkCreateWriteTask();
    taskWatchWritable_ = watch;
    fdControl_->setWrites(watch);
    if (!watch) {
        writeTask_->unscheduleTask();
    }
}

void FileDescriptorTask::checkCreateWriteTask() {
    if (writeTask_) {
        return;
    }
    writeTask_ = std::make_shared<WriteTask>(this);
    // A ratio of 1 yields on every call, so the quantum decides nothing and
    // the write side keeps its scheduler's default.
    if (readTask_->taskTestYieldRatio() != 1) {
        writeTask_->taskQuantumNoCheckIs(readTask_->taskQuantum());
    }
    writeTask_->taskSuspendedIs(readTask_->taskSuspended());
    writeTask_->taskTestYieldRatioIs(readTask_->taskTestYieldRatio());
}

void FileDescriptorTask::scheduleTaskReadable() {
    readTask_->TaskImpl::scheduleTask();
}

void FileDescriptorTask::scheduleTaskWritable() noexcept {
    checkCreateWriteTask();
    writeTask_->TaskImpl::scheduleTask();
}

// --- Settings ---

void FileDescriptorTask::taskQuantumIs(TaskTimeDuration quantum) {
    forEachSide(*this, [quantum](TaskImpl& side) { side.taskQuantumIs(quantum); });
}

void FileDescriptorTask::taskSuspendedIs(bool suspended) {
    forEachSide(*this, [suspended](TaskImpl& side) { side.taskSuspendedIs(suspended); });
}

void FileDescriptorTask::taskForceYieldInTestIs(bool on) {
    forEachSide(*this, [on](TaskImpl& side) { side.taskForceYieldInTestIs(on); });
}

void FileDescriptorTask::taskTestYieldRatioIs(std::uint8_t ratio) {
    forEachSide(*this, [ratio](TaskImpl& side) { side.taskTestYieldRatioIs(ratio); });
}

// --- Per-side statistics ---

std::uint32_t FileDescriptorTask::taskRunCountWritable() const {
    return writeTask_ ? writeTask_->taskRunCount() : 0;
}

void FileDescriptorTask::taskWorkCountWritableInc(std::uint64_t count) {
    VELIK_CLASS_ASSERT(writeTask_ != nullptr, "{}", writeTaskMissing);
    writeTask_->taskWorkCountInc(count);
}

std::uint64_t FileDescriptorTask::taskWorkCountWritableTotal() const {
    return writeTask_ ? writeTask_->workCountTotal() : 0;
}

float FileDescriptorTask::taskWorkCountWritableDecayAvg() const {
    return writeTask_ ? writeTask_->workCountDecayAvg() : 0.0f;
}

TaskMaybeU32 FileDescriptorTask::taskWorkCountWritableHighWaterMark() const {
    return writeTask_ ? writeTask_->workCountHighWaterMark() : TaskMaybeU32(0);
}

void FileDescriptorTask::taskWorkPendingWritableIs(std::uint32_t pending) {
    VELIK_CLASS_ASSERT(writeTask_ != nullptr, "{}", writeTaskMissing);
    writeTask_->taskWorkPendingIs(pending);
}

std::uint32_t FileDescriptorTask::taskWorkPendingWritable() const {
    return writeTask_ ? writeTask_->workPending() : 0;
}

TaskMaybeU32 FileDescriptorTask::taskWorkPendingWritableHighWaterMark() const {
    return writeTask_ ? writeTask_->workPendingHighWaterMark() : TaskMaybeU32(0);
}

}  // namespace Velik
