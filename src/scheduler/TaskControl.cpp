#include "Velik/TaskControl.h"

#include <utility>

namespace Velik::Platform {

namespace {

// The controls' exception contract: the hook may swallow what the handler
// threw; otherwise it goes on out of the task's run.
template <typename Notify, typename Hook>
void notifyHandler(Notify&& notify, Hook&& hook) {
    try {
        notify();
    } catch (...) {
        if (!hook()) {
            throw;
        }
    }
}

}  // namespace

// --- TaskTimerControl ---

TaskTimerControl::TaskTimerControl(TimeoutHandler* handler,
                                   std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                                   std::string name)
    : TimerTask(std::move(scheduler), priority, std::move(name)), handler_(handler) {}

void TaskTimerControl::taskExecute() {
    notifyHandler([this] { handler_->timeout(); },
                  [this] { return handler_->handleTimeoutException(); });
}

void TaskTimerControl::setTimeout(double seconds) {
    scheduleTaskDelay(seconds);
}

void TaskTimerControl::delTimeout() {
    stopTimerTask();
}

double TaskTimerControl::remainingTimeout() const {
    return timerRemaining();
}

// --- TaskCallbackControl ---

TaskCallbackControl::TaskCallbackControl(CallbackHandler* handler,
                                         std::shared_ptr<TaskScheduler> scheduler,
                                         TaskPriority priority, std::string name)
    : Task(std::move(scheduler), priority, name), handler_(handler) {}

void TaskCallbackControl::taskExecute() {
    notifyHandler([this] { handler_->callback(); },
                  [this] { return handler_->handleCallbackException(); });
}

void TaskCallbackControl::requestCallback() {
    scheduleTask();
}

void TaskCallbackControl::cancelCallback() {
    unscheduleTask();
}

bool TaskCallbackControl::pendingCallback() const {
    return taskScheduled();
}

// --- TaskFdControl ---

TaskFdControl::TaskFdControl(FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                             TaskPriority priority, std::string name)
    : FileDescriptorTask(std::move(scheduler), priority, std::move(name)), handler_(handler) {}

void TaskFdControl::taskExecuteReadable() {
    const int fd = getFd();
    notifyHandler([this, fd] { handler_->readFdEvent(fd); },
                  [this, fd] { return handler_->handleFdException(fd); });
}

void TaskFdControl::taskExecuteWritable() {
    const int fd = getFd();
    notifyHandler([this, fd] { handler_->writeFdEvent(fd); },
                  [this, fd] { return handler_->handleFdException(fd); });
}

void TaskFdControl::setReads(bool wanted) {
    taskWatchReadableIs(wanted);
}

void TaskFdControl::setWrites(bool wanted) {
    taskWatchWritableIs(wanted);
}

void TaskFdControl::setFd(int fd) {
    taskWatchFdIs(fd);
}

void TaskFdControl::delFd() {
    taskWatchFdDel();
}

int TaskFdControl::getFd() const {
    return taskWatchFd();
}

void TaskFdControl::clearEvents() {
    taskWatchFdDel();
}

// --- Factories ---

std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler,
                                        std::shared_ptr<TaskScheduler> scheduler,
                                        TaskPriority priority, std::string name) {
    return std::make_shared<TaskFdControl>(handler, std::move(scheduler), priority,
                                           std::move(name));
}

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TaskScheduler> scheduler,
                                              TaskPriority priority, std::string name) {
    return std::make_shared<TaskTimerControl>(handler, std::move(scheduler), priority,
                                              std::move(name));
}

std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler,
                                                    std::shared_ptr<TaskScheduler> scheduler,
                                                    TaskPriority priority, std::string name) {
    return std::make_shared<TaskCallbackControl>(handler, std::move(scheduler), priority,
                                                 std::move(name));
}

}  // namespace Velik::Platform
