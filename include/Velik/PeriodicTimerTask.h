// Periodic timer tasks: timer tasks that re-arm themselves after every run.
//
// A `PeriodicTimerTask` is a `TimerTask` whose run re-arms its own timer, in
// one of two modes:
//
//   fixedRate   expiries on a grid: first, first + period, first + 2 period,
//               ... Each is computed from the first expiry, never from a
//               clock reading, so the timer does not drift, and timers
//               started on the same grid expire together (one loop pass for
//               all of them). When the task runs late by more than a period
//               (a long run, a busy scheduler, a suspended task), the grid
//               points that passed are counted in `missedCount()`, not run
//               one after another: the next expiry is the first grid point
//               still in the future.
//   fixedDelay  the next expiry is one period after the end of the run, so
//               runs are spaced by at least the period whatever they take.
//
// Derive and implement `taskExecutePeriodic()` (or take a callable, see
// Velik/LambdaTask.h):
//
//   class Sampler : public Velik::PeriodicTimerTask {
//     public:
//       explicit Sampler(std::shared_ptr<Velik::TaskScheduler> s)
//           : PeriodicTimerTask(std::move(s), Velik::TaskPriority::normal, "sampler",
//                               Velik::PeriodicTimerMode::fixedRate) {}
//       void taskExecutePeriodic() override { sample(); }
//   };
//   auto sampler = std::make_shared<Sampler>(Velik::schedulerRootVelik());
//   sampler->periodicStart(std::chrono::seconds(1));
//
// The timer is the task's own (`scheduleTaskAt`, absolute times on the
// library clock). The run arms the next expiry after `taskExecutePeriodic()`
// returns, unless the handler stopped the periodic timer, armed the timer
// itself, or scheduled the task again to yield: the yielded run's last slice
// arms it then. Scheduling the task directly (`scheduleTask`) runs it at once
// without counting an expiry; a fixed-rate timer keeps its grid.
#pragma once

#include <Velik/TaskTime.h>
#include <Velik/TimerTask.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>

namespace Velik {

enum class PeriodicTimerMode : std::uint8_t {
    fixedRate = 0,   // next expiry = previous expiry + period
    fixedDelay = 1,  // next expiry = end of run + period
};

// "fixedRate" or "fixedDelay".
const char* toStrep(PeriodicTimerMode mode);

class PeriodicTimerTask : public TimerTask {
  public:
    static constexpr const char* traceClassName = "PeriodicTimerTask";

    // A stopped periodic timer task in `mode`; `periodicStart` starts it.
    PeriodicTimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                      std::string name, PeriodicTimerMode mode);
    // The same; `scheduler` must be owned by a shared pointer, else this
    // throws std::bad_weak_ptr.
    PeriodicTimerTask(TaskScheduler* scheduler, TaskPriority priority, std::string name,
                      PeriodicTimerMode mode);

    // --- Starting and stopping ---

    // Starts (or restarts) with the first expiry one period from now.
    // Asserts "period: <p>" unless the period is positive (and finite).
    void periodicStart(TaskTimeDuration period);
    void periodicStart(double period);
    // Starts (or restarts) with the first expiry at the library-clock time
    // `firstExpiry`: timers given the same first expiry and period share one
    // grid. A first expiry in the past is due at once; the grid points after
    // it that have passed too count as missed at that run (fixed rate).
    void periodicStartAt(double firstExpiry, TaskTimeDuration period);
    void periodicStartAt(double firstExpiry, double period);
    // Stops the timer and takes the task off its run queue; the counts stay.
    // May be called from the handler.
    void periodicStop();

    // --- State ---

    bool periodicRunning() const { return periodicRunning_; }
    PeriodicTimerMode periodicMode() const { return mode_; }
    TaskTimeDuration period() const { return period_; }
    // The expiries that ran the task, since construction.
    std::uint64_t expiryCount() const { return expiryCount_; }
    // Fixed rate: grid points that passed while the task was late, since
    // construction. Always 0 at fixed delay.
    std::uint64_t missedCount() const { return missedCount_; }
    // The expiry the current (or last) run served; NaN before the first.
    double lastExpiry() const { return lastExpiry_; }
    // The expiry the timer is (or, during a run, will be) armed for;
    // +infinity when stopped, and during a fixed-delay run.
    double nextExpiry() const { return nextExpiry_; }

    // --- The run ---

    // The user's work, once per run.
    virtual void taskExecutePeriodic() = 0;
    // Counts an expiry, runs `taskExecutePeriodic()`, then arms the next
    // expiry (see the file comment).
    void taskExecute() final;
    // Notes that the run to come serves the armed expiry.
    void timeout() override;

  private:
    void start(double firstExpiry, TaskTimeDuration period, double periodSeconds);
    // Whether this run should arm the next expiry.
    bool rearmDue() const;
    // The grid point `index` of a fixed-rate timer.
    double gridAt(std::uint64_t index) const;
    // Moves a fixed-rate timer to its first grid point after `now`, counting
    // the points passed over.
    void skipPassedGridPoints(double now);

    TaskTimeDuration period_{0};
    double periodSeconds_ = 0.0;
    double firstExpiry_ = 0.0;
    double lastExpiry_ = std::numeric_limits<double>::quiet_NaN();
    double nextExpiry_ = std::numeric_limits<double>::infinity();
    std::uint64_t nextIndex_ = 0;  // grid index of `nextExpiry_` (fixed rate)
    std::uint64_t expiryCount_ = 0;
    std::uint64_t missedCount_ = 0;
    PeriodicTimerMode mode_;
    bool periodicRunning_ = false;
    bool expired_ = false;  // the armed expiry fired; the next run serves it
};

}  // namespace Velik
