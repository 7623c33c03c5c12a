// Task-backed controls: platform controls whose handlers run as scheduler
// tasks instead of straight from the event loop.
//
// Code written against the control interfaces (Velik/Platform.h) can be
// served by a chosen scheduler at a chosen priority, with its fairness,
// statistics and a task name, by taking its control from these factories:
//
//   auto timer = Velik::Platform::getTimerControl(
//       &handler, Velik::schedulerRootVelik(), Velik::TaskPriority::low, "retry");
//   timer->setTimeout(2.0);   // in 2 s the task is queued; its run calls
//                             // handler.timeout()
//
// Each control *is* a task of the matching kind and *is* the control:
//
//   TaskTimerControl     a TimerTask          and a TimerControl
//   TaskCallbackControl  a Task               and a CallbackControl
//   TaskFdControl        a FileDescriptorTask and an FdControl
//
// The handler is called from the task's run, once per run. The exception
// contract of the controls holds: an exception from the handler is offered
// to its hook (`handleTimeoutException()`, `handleCallbackException()`,
// `handleFdException(fd)`); true ends the run quietly, false sends the
// exception out of the task's run and so out of the event loop. As with
// every control, the handler is not owned and must outlive the control; as
// with every task, the control belongs to its scheduler's thread.
#pragma once

#include <Velik/FileDescriptorTask.h>
#include <Velik/Platform.h>
#include <Velik/Task.h>
#include <Velik/TaskPriority.h>
#include <Velik/TimerTask.h>

#include <memory>
#include <string>

namespace Velik::Platform {

// A timer control whose expiry queues a task; the task's run calls
// `handler->timeout()`.
class TaskTimerControl : public TimerTask, public TimerControl {
  public:
    static constexpr const char* traceClassName = "TaskTimerControl";

    TaskTimerControl(TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                     TaskPriority priority, std::string name);

    void taskExecute() override;

    // `scheduleTaskDelay(seconds)`.
    void setTimeout(double seconds) override;
    // `stopTimerTask()`: also takes an expired, still queued run back.
    void delTimeout() override;
    // `timerRemaining()`.
    double remainingTimeout() const override;

    TimeoutHandler* handler() const { return handler_; }

  private:
    TimeoutHandler* handler_;
};

// A callback control that is a task: a request queues it, its run calls
// `handler->callback()`.
class TaskCallbackControl : public Task, public CallbackControl {
  public:
    static constexpr const char* traceClassName = "TaskCallbackControl";

    TaskCallbackControl(CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                        TaskPriority priority, std::string name);

    void taskExecute() override;

    // `scheduleTask()`.
    void requestCallback() override;
    // `unscheduleTask()`.
    void cancelCallback() override;
    // `taskScheduled()`.
    bool pendingCallback() const override;

    CallbackHandler* handler() const { return handler_; }

  private:
    CallbackHandler* handler_;
};

// A descriptor control that is a descriptor task: readiness queues the read
// or write side, whose run calls `handler->readFdEvent(fd)` or
// `writeFdEvent(fd)`. Unlike the platform controls, `clearEvents()` forgets
// the descriptor as `delFd()` does.
class TaskFdControl : public FileDescriptorTask, public FdControl {
  public:
    static constexpr const char* traceClassName = "TaskFdControl";

    TaskFdControl(FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                  TaskPriority priority, std::string name);

    void taskExecuteReadable() override;
    void taskExecuteWritable() override;

    // `taskWatchReadableIs(wanted)`.
    void setReads(bool wanted) override;
    // `taskWatchWritableIs(wanted)`.
    void setWrites(bool wanted) override;
    // `taskWatchFdIs(fd)`.
    void setFd(int fd) override;
    // `taskWatchFdDel()`.
    void delFd() override;
    // `taskWatchFd()`.
    int getFd() const override;
    // `taskWatchFdDel()` as well.
    void clearEvents() override;

    FdEventHandler* handler() const { return handler_; }

  private:
    FdEventHandler* handler_;
};

// A new task-backed control registered with `scheduler` at `priority` under
// the task name `name`.
std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler,
                                        std::shared_ptr<TaskScheduler> scheduler,
                                        TaskPriority priority, std::string name);
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TaskScheduler> scheduler,
                                              TaskPriority priority, std::string name);
std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler,
                                                    std::shared_ptr<TaskScheduler> scheduler,
                                                    TaskPriority priority, std::string name);

}  // namespace Velik::Platform
