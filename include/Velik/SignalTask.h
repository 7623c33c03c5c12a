// Signals as tasks.
//
// A `SignalTask` runs when one of its signals arrives, on its root's thread,
// like any task: no code runs in signal-handler context. It reads the
// signals through a signalfd watched on the thread's platform (either
// platform), and hands its handler how many arrived since its last run and
// which came last:
//
//   int main() {
//       Velik::blockSignals({SIGINT, SIGTERM});   // first, before any thread
//       auto root = Velik::schedulerRootVelik();
//       auto quit = std::make_shared<Velik::SignalTask>(
//           root, Velik::TaskPriority::high, "quit", std::vector<int>{SIGINT, SIGTERM},
//           [](std::uint64_t, int) { Velik::Platform::stopEventLoop(); });
//       Velik::Platform::doEventLoop();
//   }
//
// The signals must be blocked (`blockSignals`) in every thread of the
// process, or the kernel may deliver them to a thread that has them
// unblocked (running its handler or default action, which for SIGINT ends
// the process) and the signalfd never sees them.
//
// Counting: the kernel queues real-time signals one by one but keeps at
// most one pending instance of each standard signal, so a burst of one
// standard signal may count as fewer than were sent.
#pragma once

#include <Velik/Platform.h>
#include <Velik/Task.h>

#include <csignal>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <vector>

namespace Velik {

// Blocks `signals` in the calling thread (`pthread_sigmask`), adding them to
// those already blocked. Call it on the main thread before any other thread
// starts: a signal goes to any thread that has it unblocked, a signalfd sees
// it only while it is blocked in the thread that would receive it, and new
// threads inherit their creator's mask, so blocking early blocks it
// everywhere. Throws `RuntimeException` for an invalid signal number.
void blockSignals(std::initializer_list<int> signals);
void blockSignals(const std::vector<int>& signals);

class SignalTask : public Task, private Platform::FdEventHandler {
  public:
    static constexpr const char* traceClassName = "SignalTask";

    // Called by each run: the signals read since the last run (at least one)
    // and the number of the last of them.
    using Handler = std::function<void(std::uint64_t count, int lastSignal)>;

    // Watches `signals` through a new signalfd on `scheduler`'s thread. The
    // signals are not blocked here (see `blockSignals`). Throws
    // `RuntimeException` when the signalfd cannot be made (an invalid
    // signal, no descriptors left).
    SignalTask(TaskScheduler* scheduler, TaskPriority priority, std::string_view name,
               const std::vector<int>& signals, Handler handler);
    // The same, sharing the caller's ownership of `scheduler`.
    SignalTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
               std::string_view name, const std::vector<int>& signals, Handler handler);
    SignalTask(const SignalTask&) = delete;
    SignalTask& operator=(const SignalTask&) = delete;
    // Stops watching and closes the signalfd; signals still pending stay
    // pending (blocked) in the process.
    ~SignalTask() override;

    // Signals read and not yet handed to the handler.
    std::uint64_t signalCount() const { return count_; }
    // The last signal read, 0 before the first.
    int lastSignal() const { return last_; }
    // Signals handed to the handler so far.
    std::uint64_t signalCountTotal() const { return total_; }
    // The signalfd.
    int signalFd() const { return fd_; }

    // Hands the count since the last run and the last signal to the handler,
    // then starts counting afresh. Does nothing when none arrived (a run
    // forced by a test).
    void taskExecute() override;

  private:
    // Binds the signalfd to a new fd control, reads on; closes it on failure.
    void watch();
    // Reads every queued signal and schedules the task.
    void readFdEvent(int fd) override;
    void writeFdEvent(int) override {}

    Handler handler_;
    int fd_;
    std::shared_ptr<Platform::FdControl> control_;
    std::uint64_t count_ = 0;
    std::uint64_t total_ = 0;
    int last_ = 0;
};

}  // namespace Velik
