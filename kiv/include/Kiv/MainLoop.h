// The framework's main loop.
//
// One per process, owned by the activity manager and entered through
// `System::doRun()`. It watches descriptors with epoll and delivers clock
// notifiees. Each pass of the loop:
//   1. polls the watched descriptors and notifies those that are ready:
//      - when a clock notifiee is already due, with a zero time-out, and only
//        if at least `kPollInterval` seconds have passed since the last poll,
//        so a deferred callback re-armed from its own `onTime()` costs no
//        system call per delivery;
//      - otherwise, in real time, waiting until the next notifiee is due or
//        the execution time ends, whichever is first (for ever when only
//        descriptors are watched and there is no limit); under virtual time
//        with a zero time-out, and if nothing is ready the clock jumps to that
//        moment instead of waiting for it (with only descriptors watched and
//        no limit, there is nothing to jump to and the loop waits in real
//        time);
//   2. delivers the clock notifiees due by then that were armed before the
//      delivery began (see `Clock`).
// Fairness: descriptors are therefore polled at least every `kPollInterval`
// seconds (plus the duration of one pass), however many notifiees are due.
//
// The loop returns when no work is left (no armed clock notifiee and no
// watched descriptor), or when the execution time configured at its start
// (`ActivityManagerConfig::executionTime()`) has passed on the framework
// clock, checked after each pass. An exception thrown by a notification
// leaves `run()`; the loop's state stays consistent and it may be run again.
//
// Times: waits are rounded up to whole milliseconds, so a notifiee is never
// delivered before its time and in real time at most about a millisecond
// after it (plus whatever ran before it).
//
// A forked child shares its parent's epoll instance: it must not run the
// loop it inherited.
//
// It also returns once `stop()` is called from a notification: right after
// that notification, leaving everything else armed or ready for the next
// run (clock notifiees due but not delivered stay due; descriptors not yet
// notified are level-triggered and reported again).
//
// Thread model: the loop runs on whichever thread calls `run()`; while it
// runs, another thread calling `run()` gets an `Exception`. A notification may
// call `run()` again on the loop's thread (a nested loop, ending by the same
// rules with its own start time).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

namespace Kiv {

class ActivityManagerConfig;
class Clock;
class FileDescriptor;

class MainLoop {
  public:
    // While clock notifiees are due, descriptors are polled at most this
    // often (seconds of framework time).
    static constexpr double kPollInterval = 0.001;

    MainLoop(Clock& clock, const ActivityManagerConfig& config) noexcept;
    ~MainLoop();
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    // Runs the loop as described above. Throws what notifications throw, and
    // `SystemException` if epoll fails.
    void run();

    // Asks the running loop to return after the current notification. A
    // stop inside a nested run ends that run and every run around it; the
    // request is forgotten when the outermost run returns. Ignored when the
    // loop is not running: a later `run()` is not affected. The loop's thread
    // only.
    // Ignored too on a thread other than the loop's.
    void stop() noexcept {
        if (running()) {
            stopRequested_ = true;
        }
    }
    // Whether a run is in progress on the calling thread.
    bool running() const noexcept { return runner_.load() == std::this_thread::get_id(); }

    // The number of descriptors watched (bound, with some interest).
    std::size_t watchedCount() const noexcept { return watchedCount_; }

    // Passes run since the process started (for diagnostics).
    std::uint64_t passes() const noexcept { return passes_; }

  private:
    friend class FileDescriptor;

    // A descriptor number's current watcher. The generation changes with
    // every registration and goes into epoll's event data, so readiness
    // reported for a registration that has since ended is recognised.
    struct Watch {
        FileDescriptor* watcher = nullptr;
        std::uint32_t generation = 0;
    };

    // Registers (or updates) `watcher`'s interest `events` in `descriptor`.
    void watch(FileDescriptor& watcher, int descriptor, std::uint32_t events);
    // Ends `watcher`'s registration.
    void unwatch(FileDescriptor& watcher) noexcept;

    bool hasWork() const noexcept;
    // Waits for descriptor readiness at most `timeoutMs` (-1: no limit) and
    // notifies; returns the number of ready descriptors.
    int poll(int timeoutMs);
    void dispatch(std::uint64_t data, std::uint32_t events);
    int epollFd();

    Clock& clock_;
    const ActivityManagerConfig& config_;
    int epollFd_ = -1;
    std::vector<Watch> watches_;  // indexed by descriptor number
    std::size_t watchedCount_ = 0;
    double lastPoll_ = -1e300;
    std::uint64_t passes_ = 0;
    int depth_ = 0;
    bool stopRequested_ = false;
    std::atomic<std::thread::id> runner_{};
};

}  // namespace Kiv
