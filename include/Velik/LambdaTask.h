// Tasks from callables: a task, a timer task, a periodic timer task or a
// descriptor task whose work is a lambda, without a class of its own.
//
//   auto flush = Velik::makeTask(root, Velik::TaskPriority::low, "flush",
//                                [&queue](Velik::Task& self) {
//                                    while (queue.flushOne()) {
//                                        if (self.taskShouldYield()) {
//                                            self.scheduleTask();   // more to do
//                                            return;
//                                        }
//                                    }
//                                });
//   flush->scheduleTask();
//
//   auto tick = Velik::makePeriodicTimerTask(root, Velik::TaskPriority::normal, "tick",
//                                            Velik::PeriodicTimerMode::fixedRate,
//                                            std::chrono::seconds(1),
//                                            [](Velik::PeriodicTimerTask&) { sample(); });
//
//   auto reader = Velik::makeFdTask(root, Velik::TaskPriority::normal, "reader", fd,
//                                   [](Velik::FileDescriptorTask& self) {
//                                       drain(self.taskWatchFd());
//                                   });
//
// Each callable is given the task it runs in, so it can yield, reschedule,
// re-arm its timer or turn write interest on. It is stored in the task
// object itself (no std::function, no allocation beyond the task's own), and
// lives as long as the task: captured references must outlive it. The
// factories take the scheduler as a shared pointer (a root's or a group's
// converts) or as a plain pointer to a scheduler owned by one, and return the
// task owned by a shared pointer, as every task must be.
#pragma once

#include <Velik/FileDescriptorTask.h>
#include <Velik/PeriodicTimerTask.h>
#include <Velik/Task.h>
#include <Velik/TaskPriority.h>
#include <Velik/TaskTime.h>
#include <Velik/TimerTask.h>

#include <concepts>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Velik {

// A task whose run calls `fn(task)`.
template <std::invocable<Task&> F>
class LambdaTask final : public Task {
  public:
    template <typename Scheduler, typename G>
    LambdaTask(Scheduler&& scheduler, TaskPriority priority, std::string_view name, G&& fn)
        : Task(std::forward<Scheduler>(scheduler), priority, name), fn_(std::forward<G>(fn)) {}

    void taskExecute() override { fn_(static_cast<Task&>(*this)); }

  private:
    [[no_unique_address]] F fn_;
};

// A timer task whose run calls `fn(task)`; the callable re-arms it as it
// sees fit (`scheduleTaskDelay`, `scheduleTaskAt`, ...).
template <std::invocable<TimerTask&> F>
class LambdaTimerTask final : public TimerTask {
  public:
    template <typename Scheduler, typename G>
    LambdaTimerTask(Scheduler&& scheduler, TaskPriority priority, std::string name, G&& fn)
        : TimerTask(std::forward<Scheduler>(scheduler), priority, std::move(name)),
          fn_(std::forward<G>(fn)) {}

    void taskExecute() override { fn_(static_cast<TimerTask&>(*this)); }

  private:
    [[no_unique_address]] F fn_;
};

// A periodic timer task whose every run calls `fn(task)`.
template <std::invocable<PeriodicTimerTask&> F>
class LambdaPeriodicTimerTask final : public PeriodicTimerTask {
  public:
    template <typename Scheduler, typename G>
    LambdaPeriodicTimerTask(Scheduler&& scheduler, TaskPriority priority, std::string name,
                            PeriodicTimerMode mode, G&& fn)
        : PeriodicTimerTask(std::forward<Scheduler>(scheduler), priority, std::move(name), mode),
          fn_(std::forward<G>(fn)) {}

    void taskExecutePeriodic() override { fn_(static_cast<PeriodicTimerTask&>(*this)); }

  private:
    [[no_unique_address]] F fn_;
};

namespace Impl {

// The writable handler of a descriptor task that only reads.
struct NoFdHandler {
    void operator()(FileDescriptorTask&) const {}
};

}  // namespace Impl

// A descriptor task whose sides call `onReadable(task)` and
// `onWritable(task)`.
template <std::invocable<FileDescriptorTask&> R, std::invocable<FileDescriptorTask&> W>
class LambdaFdTask final : public FileDescriptorTask {
  public:
    template <typename Scheduler, typename GR, typename GW>
    LambdaFdTask(Scheduler&& scheduler, TaskPriority priority, std::string name, GR&& onReadable,
                 GW&& onWritable)
        : FileDescriptorTask(std::forward<Scheduler>(scheduler), priority, std::move(name)),
          onReadable_(std::forward<GR>(onReadable)),
          onWritable_(std::forward<GW>(onWritable)) {}

    void taskExecuteReadable() override { onReadable_(static_cast<FileDescriptorTask&>(*this)); }
    void taskExecuteWritable() override { onWritable_(static_cast<FileDescriptorTask&>(*this)); }

  private:
    [[no_unique_address]] R onReadable_;
    [[no_unique_address]] W onWritable_;
};

namespace Impl {

// What a factory accepts as the scheduler: a shared pointer to any scheduler
// (root, group), or a plain pointer to one owned by a shared pointer.
template <typename S>
concept SchedulerHandle = std::convertible_to<S, std::shared_ptr<TaskScheduler>> ||
    std::convertible_to<S, TaskScheduler*>;

// A shared pointer converts to the shared form; a plain pointer stays plain,
// so that an unowned scheduler fails as in the constructors.
template <SchedulerHandle S>
decltype(auto) schedulerArgument(S&& scheduler) {
    if constexpr (std::convertible_to<S, std::shared_ptr<TaskScheduler>>) {
        return std::shared_ptr<TaskScheduler>(std::forward<S>(scheduler));
    } else {
        return static_cast<TaskScheduler*>(scheduler);
    }
}

}  // namespace Impl

// A new idle task on `scheduler` whose run calls `fn(Task&)`. Schedule it
// with `scheduleTask()`.
template <Impl::SchedulerHandle S, typename F>
requires std::invocable < std::decay_t<F>
&, Task& > std::shared_ptr<LambdaTask<std::decay_t<F>>> makeTask(S&& scheduler,
                                                                 TaskPriority priority,
                                                                 std::string_view name, F&& fn) {
    return std::make_shared<LambdaTask<std::decay_t<F>>>(
        Impl::schedulerArgument(std::forward<S>(scheduler)), priority, name, std::forward<F>(fn));
}

// A new idle timer task on `scheduler` whose run calls `fn(TimerTask&)`.
// Arm it with `scheduleTaskDelay`, `scheduleTaskAt` or the jitter forms.
template <Impl::SchedulerHandle S, typename F>
requires std::invocable < std::decay_t<F>
&, TimerTask& >
       std::shared_ptr<LambdaTimerTask<std::decay_t<F>>> makeTimerTask(S&& scheduler,
                                                                       TaskPriority priority,
                                                                       std::string name, F&& fn) {
    return std::make_shared<LambdaTimerTask<std::decay_t<F>>>(
        Impl::schedulerArgument(std::forward<S>(scheduler)), priority, std::move(name),
        std::forward<F>(fn));
}

// A new periodic timer task on `scheduler` in `mode`, started with its first
// expiry one `period` from now, whose every run calls
// `fn(PeriodicTimerTask&)`. `periodicStartAt` on it moves it to another grid.
template <Impl::SchedulerHandle S, typename F>
requires std::invocable < std::decay_t<F>
&, PeriodicTimerTask& >
       std::shared_ptr<LambdaPeriodicTimerTask<std::decay_t<F>>> makePeriodicTimerTask(
           S&& scheduler, TaskPriority priority, std::string name, PeriodicTimerMode mode,
           TaskTimeDuration period, F&& fn) {
    auto task = std::make_shared<LambdaPeriodicTimerTask<std::decay_t<F>>>(
        Impl::schedulerArgument(std::forward<S>(scheduler)), priority, std::move(name), mode,
        std::forward<F>(fn));
    task->periodicStart(period);
    return task;
}

// A new descriptor task on `scheduler` watching `fd` for readability (a
// negative `fd` watches nothing yet), whose read side calls
// `onReadable(FileDescriptorTask&)` and write side `onWritable(...)`. Write
// interest starts off, and is one-shot: turn it on with
// `taskWatchWritableIs(true)`.
template <Impl::SchedulerHandle S, typename R, typename W>
requires std::invocable < std::decay_t<R>
&, FileDescriptorTask& >
       &&std::invocable<std::decay_t<W>&, FileDescriptorTask&>
           std::shared_ptr<LambdaFdTask<std::decay_t<R>, std::decay_t<W>>> makeFdTask(
               S&& scheduler, TaskPriority priority, std::string name, int fd, R&& onReadable,
               W&& onWritable) {
    auto task = std::make_shared<LambdaFdTask<std::decay_t<R>, std::decay_t<W>>>(
        Impl::schedulerArgument(std::forward<S>(scheduler)), priority, std::move(name),
        std::forward<R>(onReadable), std::forward<W>(onWritable));
    if (fd >= 0) {
        task->taskWatchFdIs(fd);
    }
    return task;
}

// The same for a task that only reads.
template <Impl::SchedulerHandle S, typename R>
requires std::invocable < std::decay_t<R>
&, FileDescriptorTask& >
       std::shared_ptr<LambdaFdTask<std::decay_t<R>, Impl::NoFdHandler>> makeFdTask(
           S&& scheduler, TaskPriority priority, std::string name, int fd, R&& onReadable) {
    return makeFdTask(std::forward<S>(scheduler), priority, std::move(name), fd,
                      std::forward<R>(onReadable), Impl::NoFdHandler{});
}

}  // namespace Velik
