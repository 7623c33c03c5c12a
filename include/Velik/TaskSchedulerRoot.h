// The per-thread scheduler root.
//
// Each thread that runs tasks has one root, `schedulerRootVelik()`. It is the
// thread's top scheduler (tasks may be created on it directly), it knows
// every scheduler of the thread, owns the thread's event history, and joins
// the scheduling core to the event platform: a run request asks its callback
// control for a deferred callback, and each callback performs one scheduler
// run. It also holds the thread-wide switches: suspension, thread checking,
// virtual time and the forced test yield ratio.
//
//   auto root = Velik::schedulerRootVelik();
//   auto task = std::make_shared<MyTask>(root.get());
//   task->scheduleTask();        // requests a callback
//   Velik::doLeEventLoop();      // runs the task, one per callback
#pragma once

#include <Velik/Platform.h>
#include <Velik/RunPublication.h>
#include <Velik/TaskScheduler.h>

#include <sys/types.h>

#include <pthread.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <string_view>

namespace Velik {

class TimerWheel;

class TaskSchedulerRoot : public TaskScheduler, public Platform::CallbackHandler {
  public:
    static constexpr const char* traceClassName = "TaskSchedulerRoot";
    static constexpr std::uint32_t historyCapacityInitial = 100;

    // Makes the root's callback control; given the root as handler.
    using CallbackControlFactory =
        std::function<std::shared_ptr<Platform::CallbackControl>(Platform::CallbackHandler*)>;

    // A root on the calling thread, with its callback control from the
    // platform of the thread.
    explicit TaskSchedulerRoot(std::string_view name);
    // The same with the callback control from `factory` (tests drive the root
    // through a control of their own).
    TaskSchedulerRoot(std::string_view name, const CallbackControlFactory& factory);
    ~TaskSchedulerRoot() override;

    // --- Scheduling ---

    // Asks the callback control for a callback, unless suspended.
    void requestSchedulerRun() override;
    void handleTaskForceYieldInTest() override {}
    void taskRegister(TaskImpl* task) override { TaskScheduler::taskRegister(task); }
    // The platform's callback: one scheduler run.
    void callback() override;
    // Follows the framework's virtual-time flag (main thread only), then runs
    // the scheduler once.
    void handleSchedulerRun();

    const std::shared_ptr<Platform::CallbackControl>& callbackControl() const {
        return callbackControl_;
    }
    // The timer wheel the root's timer tasks are armed on; its master timer
    // runs on the thread's platform.
    const std::shared_ptr<TimerWheel>& timerWheel() const { return timerWheel_; }

    // --- The thread's schedulers ---

    void registerScheduler(TaskScheduler* scheduler);
    void unregisterScheduler(TaskScheduler* scheduler);
    const std::set<TaskScheduler*>& schedulers() const { return schedulers_; }
    // Registered tasks of every scheduler, bookmarks excluded.
    std::size_t totalRegisteredTaskCount() const;
    // Registered schedulers other than the root.
    std::size_t taskGroupCount() const;
    // The first scheduler (in address order) named `name`; empty if none.
    std::shared_ptr<TaskScheduler> findSchedulerForTest(std::string_view name);
    std::shared_ptr<const TaskScheduler> findSchedulerForTest(std::string_view name) const;

    // --- Thread-wide switches ---

    bool suspended() const { return suspended_; }
    // Suspends every scheduler of the root; unsuspending requests a run.
    void suspendedIs(bool suspended);

    // Asserts "Executing in wrong thread ..." unless called on the creating
    // thread, or checking is disabled, or auxiliary threads are counted, or
    // the process has forked since.
    void sanityCheckCurrentRunningThread() const {
        if (!pthread_equal(pthread_self(), threadId_)) [[unlikely]] {
            sanityCheckOtherThread();
        }
    }
    bool threadSanityDisabled() const { return threadSanityDisabled_; }
    void threadSanityDisabledIs(bool disabled);
    // The calling thread's name.
    static std::string currentThreadName();

    bool virtualTime() const { return virtualTime_; }
    void virtualTimeIs(bool virtualTime);
    // Whether runs follow the framework's virtual-time flag (main thread).
    bool followVirtualTime() const { return followVirtualTime_; }

    std::uint8_t taskTestYieldRatio() const { return taskTestYieldRatio_; }
    void taskTestYieldRatioIs(std::uint8_t ratio);
    // Re-evaluates the yield mode of every task of every scheduler.
    void taskShouldYieldModeReevaluate();

    // A pseudo-random 0..100 (100 is rare) from the root's own seed, which
    // starts at 0: the same sequence in every new root.
    unsigned randomPercent();
    // Restarts the sequence from `seed`, for tests that need a given draw.
    void randomSeedForTestIs(unsigned seed) { randomSeed_ = seed; }

    // `checkSchedulerLatency`, then marks now as the last run request.
    void doUpdateSchedulerLatency();

    pthread_t threadId() const { return threadId_; }
    pid_t pid() const { return pid_; }
    const char* threadName() const { return threadName_; }

    // --- Published runs (see RunPublication.h and StallSentinel.h) ---

    // What the thread runs, for watchers on other threads.
    Impl::RunPublication& runPublication() const { return *runPublication_; }
    // How long one run of this root's tasks may take before it counts as a
    // stall; zero (the start) means the sentinel's default. Any thread.
    TaskTimeDuration stallThreshold() const { return runPublication_->stallThreshold(); }
    void stallThresholdIs(TaskTimeDuration threshold) {
        runPublication_->stallThresholdIs(threshold);
    }

    // --- History ---

    std::uint32_t historyEntryCount() const;
    void historyEntryCountIs(std::uint32_t count);
    void clearHistory();
    void historyRenderTextForDebug(std::ostream& stream) const;
    std::string historyRenderTextForDebugToString() const;
    void historyRenderTextForDebugStdErr() const;
    void historyRenderTextForDebug(int fd) const;

    // --- Text statistics report (see TaskSchedulerTextReport.h) ---

    // The queue statistics of every scheduler of the root, merged.
    TaskSchedulerQueueStats queueStatsRoot() const;
    // One report for all schedulers of the root, followed by the history
    // text when `includeHistory`. `includeNoRuns` lists tasks that never ran
    // (otherwise they are counted as skipped), `includeCompleted` adds the
    // completed table, `showKeys` appends task keys to live task names.
    void statsRenderTextForDebug(std::ostream& stream, bool includeNoRuns, bool includeCompleted,
                                 bool includeHistory, bool showKeys) const;
    // The same to a blocking descriptor (see `FdToStream`), left open.
    void statsRenderTextForDebug(int fd, bool includeNoRuns, bool includeCompleted,
                                 bool includeHistory, bool showKeys) const;
    std::string statsRenderTextForDebugToString(bool includeNoRuns, bool includeCompleted,
                                                bool includeHistory, bool showKeys) const;
    // Everything but the keys, to standard error.
    void statsRenderTextForDebugStdErr() const;

  private:
    // The checks for a call from a thread other than the root's.
    void sanityCheckOtherThread() const;

    std::set<TaskScheduler*> schedulers_;
    std::shared_ptr<Platform::CallbackControl> callbackControl_;
    std::shared_ptr<TimerWheel> timerWheel_;
    // Shared with the process-wide list, which may outlive the root.
    std::shared_ptr<Impl::RunPublication> runPublication_;
    pthread_t threadId_;
    pid_t pid_;
    char threadName_[16] = {};
    bool threadSanityDisabled_ = false;
    bool suspended_ = false;
    bool virtualTime_ = false;
    bool followVirtualTime_ = false;
    std::uint8_t taskTestYieldRatio_ = 0;
    unsigned randomSeed_ = 0;
};

// A new root owned by a shared pointer.
std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRootIs(std::string_view name);
// A new root not bound to any thread slot.
std::shared_ptr<TaskSchedulerRoot> schedulerRootVelikNonShared(std::string_view name);
// The calling thread's root, created on the first call ("main" on the main
// thread, "thread:<pthread id>" elsewhere) and released when the thread ends.
std::shared_ptr<TaskSchedulerRoot> schedulerRootVelik();

// Gives the calling thread's root `name` instead of the default, so that
// reports, history and scrape labels say "worker0" rather than a thread id.
// Call it on the thread before its first `schedulerRootVelik()` (directly or
// through anything that makes the root: an inbox, a task). Once the root
// exists, a different name throws `RuntimeException`; the same name is fine.
void schedulerRootVelikNameIs(std::string_view name);

}  // namespace Velik
