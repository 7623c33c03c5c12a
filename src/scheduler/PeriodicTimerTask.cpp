#include "Velik/PeriodicTimerTask.h"

#include "Velik/Assert.h"
#include "Velik/Fmtrace.h"
#include "Velik/Time.h"

#include <cmath>
#include <utility>

namespace Velik {

const char* toStrep(PeriodicTimerMode mode) {
    return mode == PeriodicTimerMode::fixedRate ? "fixedRate" : "fixedDelay";
}

PeriodicTimerTask::PeriodicTimerTask(std::shared_ptr<TaskScheduler> scheduler,
                                     TaskPriority priority, std::string name,
                                     PeriodicTimerMode mode)
    : TimerTask(std::move(scheduler), priority, std::move(name)), mode_(mode) {}

PeriodicTimerTask::PeriodicTimerTask(TaskScheduler* scheduler, TaskPriority priority,
                                     std::string name, PeriodicTimerMode mode)
    : TimerTask(scheduler, priority, std::move(name)), mode_(mode) {}

// --- Starting and stopping ---

void PeriodicTimerTask::periodicStart(TaskTimeDuration period) {
    periodicStartAt(Velik::time() + static_cast<double>(period.count()) / 1e9, period);
}

void PeriodicTimerTask::periodicStart(double period) {
    periodicStartAt(Velik::time() + period, period);
}

void PeriodicTimerTask::periodicStartAt(double firstExpiry, TaskTimeDuration period) {
    VELIK_CLASS_ASSERT(period.count() > 0, "period: {}", period.count());
    start(firstExpiry, period, static_cast<double>(period.count()) / 1e9);
}

void PeriodicTimerTask::periodicStartAt(double firstExpiry, double period) {
    // Written so that a NaN fails too.
    VELIK_CLASS_ASSERT(period > 0.0 && std::isfinite(period), "period: {}", period);
    const TaskTimeDuration ns(static_cast<TaskTimeDuration::rep>(std::llround(period * 1e9)));
    start(firstExpiry, ns, period);
}

void PeriodicTimerTask::start(double firstExpiry, TaskTimeDuration period, double periodSeconds) {
    VELIK_CLASS_ASSERT(std::isfinite(firstExpiry), "firstExpiry: {}", firstExpiry);
    period_ = period;
    periodSeconds_ = periodSeconds;
    firstExpiry_ = firstExpiry;
    nextIndex_ = 0;
    nextExpiry_ = firstExpiry;
    periodicRunning_ = true;
    expired_ = false;
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 5, "Periodic {} {} period {} first {}", taskDisplayName(),
                toStrep(mode_), periodSeconds, firstExpiry);
    scheduleTaskAt(firstExpiry);
}

void PeriodicTimerTask::periodicStop() {
    periodicRunning_ = false;
    expired_ = false;
    nextExpiry_ = std::numeric_limits<double>::infinity();
    stopTimerTask();
}

// --- The run ---

void PeriodicTimerTask::timeout() {
    expired_ = periodicRunning_;
    TimerTask::timeout();
}

void PeriodicTimerTask::taskExecute() {
    if (expired_) {
        // The run serves the expiry that fired, however late it comes.
        expired_ = false;
        ++expiryCount_;
        lastExpiry_ = nextExpiry_;
        if (mode_ == PeriodicTimerMode::fixedRate) {
            nextExpiry_ = gridAt(++nextIndex_);
        } else {
            nextExpiry_ = std::numeric_limits<double>::infinity();
        }
    }
    taskExecutePeriodic();
    if (!rearmDue()) {
        return;
    }
    // One reading, at the end of the run: a run that itself outlasted grid
    // points has missed them too.
    const double now = Velik::time();
    if (mode_ == PeriodicTimerMode::fixedRate) {
        skipPassedGridPoints(now);
    } else {
        nextExpiry_ = now + periodSeconds_;
    }
    scheduleTaskAt(nextExpiry_);
}

bool PeriodicTimerTask::rearmDue() const {
    // Stopped, yielding (the last slice arms), or armed by the handler.
    return periodicRunning_ && !taskRunQueueLink_.isLinked() && !timerRunning();
}

double PeriodicTimerTask::gridAt(std::uint64_t index) const {
    // From the first expiry, not by adding up periods, whose rounding would
    // drift.
    return firstExpiry_ + static_cast<double>(index) * periodSeconds_;
}

void PeriodicTimerTask::skipPassedGridPoints(double now) {
    if (nextExpiry_ > now) {
        return;
    }
    // A first guess by division, then exact by comparing the grid points
    // themselves, so that rounding can neither skip a future point nor keep
    // a passed one.
    const double behind = std::floor((now - nextExpiry_) / periodSeconds_);
    std::uint64_t index = nextIndex_ + static_cast<std::uint64_t>(behind) + 1;
    while (gridAt(index) <= now) {
        ++index;
    }
    while (index > nextIndex_ + 1 && gridAt(index - 1) > now) {
        --index;
    }
    const std::uint64_t missed = index - nextIndex_;
    missedCount_ += missed;
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 5, "Periodic {} missed {} expiries", taskDisplayName(),
                missed);
    nextIndex_ = index;
    nextExpiry_ = gridAt(index);
}

}  // namespace Velik
