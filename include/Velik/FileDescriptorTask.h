// File-descriptor tasks: user code run when a descriptor becomes readable or
// writable, at a task's priority and under the scheduler's quantum rules.
//
// A `FileDescriptorTask` watches one descriptor through an `FdControl` of the
// thread's platform and is that control's handler. A platform notification
// only queues work; the user's handler runs later, as a scheduled task. The
// two sides are two sub-tasks, ":read" and ":write", so a descriptor that is
// both readable and writable competes for the scheduler twice and each side
// has its own run and work statistics.
//
//   class Reader : public Velik::FileDescriptorTask {
//     public:
//       Reader(std::shared_ptr<Velik::TaskScheduler> s, int fd)
//           : FileDescriptorTask(std::move(s), Velik::TaskPriority::normal, "reader") {
//           taskWatchFdIs(fd);
//       }
//       void taskExecuteReadable() override {
//           while (readOneMessage()) {
//               taskWorkCountInc(1);
//               if (taskShouldYield()) {
//                   scheduleTaskReadable();  // more may be waiting
//                   return;
//               }
//           }
//       }
//       void taskExecuteWritable() override {
//           if (flushSome()) {
//               taskWatchWritableIs(true);   // writability is one-shot
//           }
//       }
//   };
//   auto reader = std::make_shared<Reader>(Velik::schedulerRootVelik(), fd);
//
// Read interest stays on until turned off. Write interest is one-shot: the
// write side turns it off before its handler runs, and a handler with more to
// write turns it on again.
//
// A task is owned by a shared pointer and belongs to its scheduler's thread,
// like every task; the platform's notifications arrive on that thread.
#pragma once

#include <Velik/Platform.h>
#include <Velik/Task.h>
#include <Velik/TaskMaybeU32.h>
#include <Velik/TaskPriority.h>
#include <Velik/TaskTime.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Velik {

class TaskScheduler;

class FileDescriptorTask : public _TaskBase, public Platform::FdEventHandler {
  public:
    static constexpr const char* traceClassName = "FileDescriptorTask";

    // The scheduled side of a descriptor task: a plain task of the parent's
    // scheduler and priority, named after the parent. It points back at the
    // parent until the parent is destroyed; a side still queued then runs as
    // a no-op.
    class ReadWriteTaskBase : public Task {
      public:
        // Named the parent's task name followed by `suffix`. When the parent's
        // stats name differs from its task name, the stats name is the
        // parent's stats name followed by `suffix`.
        ReadWriteTaskBase(FileDescriptorTask* parent, std::string suffix);

        // The parent counts as busy while either side is queued.
        void handleTaskBusy() override;

        // The owning task; null once it has been destroyed.
        FileDescriptorTask* parent() const { return parent_; }

      private:
        friend class FileDescriptorTask;
        FileDescriptorTask* parent_;
    };

    // Runs the parent's `taskExecuteReadable()`.
    class ReadTask : public ReadWriteTaskBase {
      public:
        explicit ReadTask(FileDescriptorTask* parent) : ReadWriteTaskBase(parent, ":read") {}
        void taskExecute() override;
        // Passes the reset on to the parent's `handleResetStats()`: the parent
        // is not a scheduled task, so no reset reaches it otherwise.
        void handleResetStats() override;
    };

    // Runs the parent's `taskExecuteWritable()`.
    class WriteTask : public ReadWriteTaskBase {
      public:
        explicit WriteTask(FileDescriptorTask* parent) : ReadWriteTaskBase(parent, ":write") {}
        void taskExecute() override;
    };

    // A task on `scheduler` watching no descriptor yet, with read interest on
    // and write interest off. The write side is created when first needed.
    FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                       std::string name);
    // The same; `scheduler` must be owned by a shared pointer, else this
    // throws std::bad_weak_ptr.
    FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority, std::string name);

    // --- Task operations, redirected to the sides ---

    // Sets the stats name, and the sides' to `name` + ":read" / ":write".
    void taskStatsNameIs(const std::string& name) override;
    // Whether either side is queued.
    bool taskScheduled() const override;
    // These three act on the side whose handler is running: call them only
    // from inside `taskExecuteReadable()` or `taskExecuteWritable()`;
    // elsewhere they assert (and `taskShouldYield()`, which never throws,
    // ends the process).
    bool taskShouldYield() const noexcept override;
    void taskWorkCountInc(std::uint64_t count) override;
    void taskWorkPendingIs(std::uint32_t pending) override;

    // Releases the control (ending the watch) and the sides, which forget
    // their parent first.
    ~FileDescriptorTask() override;

    // --- The user's handlers ---

    // The descriptor was found readable. Runs as the read side's task.
    virtual void taskExecuteReadable() = 0;
    // The descriptor was found writable. Runs as the write side's task, with
    // write interest already turned off.
    virtual void taskExecuteWritable() = 0;

    // --- Platform notifications ---

    // Records `fdReadable` and queues the read side. Aborts the process when
    // read interest is off or `fd` is not the watched descriptor. A report
    // that finds the read side queued already also pauses read interest in
    // the control until that side runs (`taskWatchReadable()` stays on), from
    // the second such report on: a level-triggered loop would otherwise
    // report the descriptor on every pass until then.
    void readFdEvent(int fd) override;
    // Records `fdWritable` and queues the write side. Aborts the process when
    // write interest is off or `fd` is not the watched descriptor.
    void writeFdEvent(int fd) override;

    // --- Watching ---

    // The watched descriptor, or -1.
    int taskWatchFd() const;
    // Watches `fd` instead. The same descriptor again does nothing; another
    // one first takes both sides off their run queues.
    void taskWatchFdIs(int fd);
    // Takes both sides off their run queues and stops watching any
    // descriptor. The descriptor is not closed.
    void taskWatchFdDel();

    bool taskWatchReadable() const { return taskWatchReadable_; }
    // Turning read interest off also unqueues the read side.
    void taskWatchReadableIs(bool watch);
    bool taskWatchWritable() const { return taskWatchWritable_; }
    // Turning write interest on creates the write side if needed; turning it
    // off also unqueues the write side.
    void taskWatchWritableIs(bool watch);

    // Creates the write side unless it exists, with the read side's suspended
    // flag, test yield ratio and (unless that ratio forces every yield)
    // quantum.
    void checkCreateWriteTask();

    // Queues the read side, as a readable notification would.
    void scheduleTaskReadable();
    // Queues the write side (creating it if needed), whatever the write
    // interest.
    void scheduleTaskWritable() noexcept;

    // --- Settings, applied to both sides and read from the read side ---

    TaskTimeDuration taskQuantum() const { return readTask_->taskQuantum(); }
    // Asserts with "Quantum: " beyond one second.
    void taskQuantumIs(TaskTimeDuration quantum);
    bool taskSuspended() const { return readTask_->taskSuspended(); }
    // Unsuspending queues both sides, as it does any task.
    void taskSuspendedIs(bool suspended);
    // True exactly when the read side's test yield ratio is 1.
    bool taskForceYieldInTest() const { return readTask_->taskTestYieldRatio() == 1; }
    void taskForceYieldInTestIs(bool on);
    std::uint8_t taskTestYieldRatio() const { return readTask_->taskTestYieldRatio(); }
    void taskTestYieldRatioIs(std::uint8_t ratio);

    // Records busy/idle changes and calls `handleTaskBusy()` on a change.
    void taskBusyIs(bool busy, TaskTimePoint now);

    // --- Per-side state and statistics (write side: zero until created) ---

    bool taskScheduledReadable() const { return readTask_->taskScheduled(); }
    bool taskScheduledWritable() const { return writeTask_ && writeTask_->taskScheduled(); }

    std::uint32_t taskRunCountReadable() const { return readTask_->taskRunCount(); }
    std::uint32_t taskRunCountWritable() const;
    std::uint32_t taskRunCount() const { return taskRunCountReadable() + taskRunCountWritable(); }

    void taskWorkCountReadableInc(std::uint64_t count) { readTask_->taskWorkCountInc(count); }
    // Asserts "WriteTask not created by taskWatchWritableIs( true )" without
    // a write side.
    void taskWorkCountWritableInc(std::uint64_t count);
    std::uint64_t taskWorkCountReadableTotal() const { return readTask_->workCountTotal(); }
    std::uint64_t taskWorkCountWritableTotal() const;
    float taskWorkCountReadableDecayAvg() const { return readTask_->workCountDecayAvg(); }
    float taskWorkCountWritableDecayAvg() const;
    TaskMaybeU32 taskWorkCountReadableHighWaterMark() const {
        return readTask_->workCountHighWaterMark();
    }
    TaskMaybeU32 taskWorkCountWritableHighWaterMark() const;

    void taskWorkPendingReadableIs(std::uint32_t pending) { readTask_->taskWorkPendingIs(pending); }
    // Asserts like `taskWorkCountWritableInc` without a write side.
    void taskWorkPendingWritableIs(std::uint32_t pending);
    std::uint32_t taskWorkPendingReadable() const { return readTask_->workPending(); }
    std::uint32_t taskWorkPendingWritable() const;
    TaskMaybeU32 taskWorkPendingReadableHighWaterMark() const {
        return readTask_->workPendingHighWaterMark();
    }
    TaskMaybeU32 taskWorkPendingWritableHighWaterMark() const;

    // --- Parts ---

    const std::shared_ptr<Platform::FdControl>& fdControl() const { return fdControl_; }
    const std::shared_ptr<ReadTask>& readTask() const { return readTask_; }
    // Null until write interest is first turned on or the write side is
    // first queued.
    const std::shared_ptr<WriteTask>& writeTask() const { return writeTask_; }
    // The side whose handler is running, or null.
    ReadWriteTaskBase* executingTask() const { return executingTask_; }

  private:
    // The sides' runs, with the parent held alive by the caller.
    void _taskExecuteReadable();
    void _taskExecuteWritable();
    // Sets the executing side for one handler call.
    void runAs(ReadWriteTaskBase* side, void (FileDescriptorTask::*handler)());
    // The side a redirected operation acts on.
    ReadWriteTaskBase& executingSide(const char* function) const;
    // A notification the task did not ask for means the control and the task
    // disagree: fatal, never unwound into the event loop.
    void checkNotification(bool watching, int fd, const char* function,
                           const char* offMessage) const noexcept;
    // Gives the control back the read interest a repeated report paused.
    void resumeReads();

    bool taskWatchReadable_ = false;
    bool taskWatchWritable_ = false;
    bool readsPaused_ = false;      // read interest off in the control only
    std::uint8_t readRepeats_ = 0;  // reports since the read side was queued
    std::shared_ptr<Platform::FdControl> fdControl_;
    std::shared_ptr<ReadTask> readTask_;
    std::shared_ptr<WriteTask> writeTask_;
    ReadWriteTaskBase* executingTask_ = nullptr;
};

}  // namespace Velik
