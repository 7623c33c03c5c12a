// The activity manager: the framework object that runs the process.
//
// There is one per process, `Kiv::activityManager()`, created on first use
// and never destroyed (so notifiees and descriptor objects with static
// lifetime may outlive everything else safely). It owns the clock, the main
// loop, the activity lock and the configuration that steers them.
//
// Thread model: one activity manager and one main loop per process, run by
// whichever thread calls `System::doRun()`. The configuration, the clock's
// `now()` and the activity lock may be used from any thread; everything else
// belongs to the loop's thread.
#pragma once

#include <atomic>
#include <limits>

#include "Kiv/ActivityLock.h"
#include "Kiv/Clock.h"
#include "Kiv/MainLoop.h"

namespace Kiv {

// Settings of the activity manager. Thread-safe.
class ActivityManagerConfig {
  public:
    explicit ActivityManagerConfig(Clock* clock) noexcept : clock_(clock) {}
    ActivityManagerConfig(const ActivityManagerConfig&) = delete;
    ActivityManagerConfig& operator=(const ActivityManagerConfig&) = delete;

    // The framework clock.
    Clock* clock() const noexcept { return clock_; }

    // Virtual time (off at start). While on, the main loop jumps the clock
    // to the next due notifiee instead of waiting for it, so long timers run
    // at full speed; see `Clock` for what switching does to the clock.
    bool virtualTime() const noexcept { return virtualTime_.load(std::memory_order_relaxed); }
    void virtualTimeIs(bool on) noexcept { virtualTime_.store(on, std::memory_order_relaxed); }

    // How long, in seconds of framework time, each `System::doRun()` may run
    // before returning. +infinity (the default, and what NaN means) is no
    // limit; 0 or less runs a single pass. Read when `doRun()` starts, and
    // kept for later runs until changed.
    double executionTime() const noexcept { return executionTime_.load(std::memory_order_relaxed); }
    void executionTimeIs(double seconds) noexcept;

  private:
    Clock* clock_;
    std::atomic<bool> virtualTime_{false};
    std::atomic<double> executionTime_{std::numeric_limits<double>::infinity()};
};

class ActivityManager {
  public:
    ActivityManager(const ActivityManager&) = delete;
    ActivityManager& operator=(const ActivityManager&) = delete;

    ActivityManagerConfig* config() noexcept { return &config_; }
    Clock* clock() noexcept { return &clock_; }
    MainLoop* mainLoop() noexcept { return &mainLoop_; }
    // The process-wide activity lock.
    ActivityLock* activityLock() noexcept { return &activityLock_; }

  private:
    friend ActivityManager* activityManager();
    ActivityManager();
    ~ActivityManager() = default;

    Clock clock_;
    ActivityManagerConfig config_;
    ActivityLock activityLock_;
    MainLoop mainLoop_;
};

// The process's activity manager. Thread-safe.
ActivityManager* activityManager();

}  // namespace Kiv
