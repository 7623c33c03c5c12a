#include "Velik/TimerTask.h"

#include "Velik/Assert.h"
#include "Velik/Fmtrace.h"
#include "Velik/TaskScheduler.h"
#include "Velik/TaskSchedulerRoot.h"
#include "Velik/Time.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace Velik {

namespace {

constexpr double neverSeconds = std::numeric_limits<double>::infinity();

bool isNever(double delay) {
    return delay == neverSeconds;
}
bool isNever(TaskTimeDuration delay) {
    return delay == TimerTask::neverDelay;
}
bool isZero(double delay) {
    return delay == 0.0;
}
bool isZero(TaskTimeDuration delay) {
    return delay.count() == 0;
}
double toSeconds(double delay) {
    return delay;
}
double toSeconds(TaskTimeDuration delay) {
    return static_cast<double>(delay.count()) / 1e9;
}
// Traces print a delay in the caller's own form: seconds, or a count of
// nanoseconds.
double printable(double delay) {
    return delay;
}
std::int64_t printable(TaskTimeDuration delay) {
    return delay.count();
}
// Whether delay + offset leaves the range of the delay's form; doubles reach
// infinity instead, which the wheel takes as never.
bool sumOverflows(double, double) {
    return false;
}
bool sumOverflows(TaskTimeDuration delay, TaskTimeDuration offset) {
    std::int64_t sum;
    return __builtin_add_overflow(delay.count(), offset.count(), &sum);
}

}  // namespace

TimerTask::TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     std::string name)
    : TaskImpl(std::move(scheduler), priority, name) {}

TimerTask::TimerTask(TaskScheduler* scheduler, TaskPriority priority, std::string name)
    : TimerTask(scheduler ? scheduler->shared_from_this() : nullptr, priority, std::move(name)) {}

TimerTask::~TimerTask() {
    // noexcept: an assertion that throws here ends the process.
    stopTimerTask();
}

const std::shared_ptr<TimerWheel>& TimerTask::wheel() const {
    return root()->timerWheel();
}

// --- The two primitives on the wheel event ---

bool TimerTask::doStartTimer(double delay, bool restart) {
    // A delay that is not a number is due at once on the wheel, so it comes
    // before any running timer.
    if (!restart && !(delay < remainingTimeout()) && !std::isnan(delay)) {
        return false;
    }
    setTimeout(wheel(), delay);
    timerExpiry_.armedFor = expirationTime();
    return true;
}

void TimerTask::doStopTimer() {
    if (!timerRunning_) {
        return;
    }
    timerRunning_ = false;
    delTimeout(wheel());
}

// --- Delays ---

template <typename Delay>
void TimerTask::scheduleTaskDelayedPrivate(Delay delay, bool restart) {
    if (isZero(delay)) {
        scheduleTask();
        return;
    }
    const TaskTimePoint now = taskSteadyNow();
    if (!restart && taskRunQueueLink_.isLinked()) {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "Already on runQueue {}", taskDisplayName());
        return;
    }
    checkNotDestroyed();
    if (restart) {
        unscheduleTaskPrivate(now);
    }
    if (doStartTimer(toSeconds(delay), restart)) {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "Timer started {} delay {}", taskDisplayName(),
                    printable(delay));
        timerStarted(now);
        return;
    }
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "Timer already running {} expire {}", taskDisplayName(),
                currentExpirationTime());
    VELIK_CLASS_ASSERT(timerRunning_, "Task: {}", taskDisplayName());
}

void TimerTask::timerStarted(TaskTimePoint now) {
    timerRunning_ = true;
    recordHistory(now, TaskSchedulerEventType::timerStart);
    taskBusyIs(taskScheduled(), now);
}

void TimerTask::scheduleTaskAt(double expiry) {
    sanityCheckCurrentRunningThread();
    if (isNever(expiry)) {
        stopTimerTask();
        return;
    }
    const TaskTimePoint now = taskSteadyNow();
    checkNotDestroyed();
    unscheduleTaskPrivate(now);
    // No clock reading: the expiry is exact, and one that has passed (or is
    // not a number) is due at once on the wheel.
    setTimeoutAt(wheel(), expiry);
    timerExpiry_.armedFor = expirationTime();
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "Timer started {} at {}", taskDisplayName(), expiry);
    timerStarted(now);
}

void TimerTask::scheduleTaskDelay(double delay) {
    sanityCheckCurrentRunningThread();
    if (isNever(delay)) {
        stopTimerTask();
        return;
    }
    scheduleTaskDelayedPrivate(delay, true);
}

void TimerTask::scheduleTaskDelay(TaskTimeDuration delay) {
    sanityCheckCurrentRunningThread();
    if (isNever(delay)) {
        stopTimerTask();
        return;
    }
    scheduleTaskDelayedPrivate(delay, true);
}

template <typename Delay>
void TimerTask::_scheduleTaskJitterUp(Delay delay, std::uint8_t maxJitterPercentage) {
    sanityCheckCurrentRunningThread();
    if (isNever(delay)) {
        stopTimerTask();
        return;
    }
    const Delay offset = jitterOffset(delay, maxJitterPercentage);
    if (sumOverflows(delay, offset)) [[unlikely]] {
        // Beyond the largest count of nanoseconds: the sum in seconds, so
        // the timer is not armed earlier than asked.
        const double seconds = toSeconds(delay) + toSeconds(offset);
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 9, "Timer jitterUp {} delay {} + {} = {}",
                    taskDisplayName(), printable(delay), printable(offset), seconds);
        scheduleTaskDelayedPrivate(seconds, true);
        return;
    }
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 9, "Timer jitterUp {} delay {} + {} = {}", taskDisplayName(),
                printable(delay), printable(offset), printable(delay + offset));
    scheduleTaskDelayedPrivate(delay + offset, true);
}

template <typename Delay>
void TimerTask::_scheduleTaskJitterDown(Delay delay, std::uint8_t maxJitterPercentage) {
    sanityCheckCurrentRunningThread();
    if (isNever(delay)) {
        stopTimerTask();
        return;
    }
    const Delay offset = jitterOffset(delay, maxJitterPercentage);
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 9, "Timer jitterDown {} delay {} - {} = {}",
                taskDisplayName(), printable(delay), printable(offset), printable(delay - offset));
    scheduleTaskDelayedPrivate(delay - offset, true);
}

template <typename Delay>
void TimerTask::_scheduleTaskLowestDelay(Delay delay) {
    sanityCheckCurrentRunningThread();
    VELIK_CLASS_ASSERT(!isNever(delay), "delayIntoFuture: {}", printable(delay));
    scheduleTaskDelayedPrivate(delay, false);
}

void TimerTask::scheduleTaskJitterUp(double delay, std::uint8_t maxJitterPercentage) {
    _scheduleTaskJitterUp(delay, maxJitterPercentage);
}
void TimerTask::scheduleTaskJitterUp(TaskTimeDuration delay, std::uint8_t maxJitterPercentage) {
    _scheduleTaskJitterUp(delay, maxJitterPercentage);
}
void TimerTask::scheduleTaskJitterDown(double delay, std::uint8_t maxJitterPercentage) {
    _scheduleTaskJitterDown(delay, maxJitterPercentage);
}
void TimerTask::scheduleTaskJitterDown(TaskTimeDuration delay, std::uint8_t maxJitterPercentage) {
    _scheduleTaskJitterDown(delay, maxJitterPercentage);
}
void TimerTask::scheduleTaskLowestDelay(double delay) {
    _scheduleTaskLowestDelay(delay);
}
void TimerTask::scheduleTaskLowestDelay(TaskTimeDuration delay) {
    _scheduleTaskLowestDelay(delay);
}

// --- Jitter ---

double TimerTask::jitterOffset(double delay, std::uint8_t maxJitterPercentage) const {
    // The percentage goes into the message as one raw character, as it
    // always has: tools that match the text expect it so.
    VELIK_CLASS_ASSERT(maxJitterPercentage <= 100, "maxJitterPercentage: {} > 100",
                       static_cast<char>(maxJitterPercentage));
    const double q = root()->randomPercent();
    double offset = q * (maxJitterPercentage * delay) / 10000.0;
    if (!std::isfinite(offset) && std::isfinite(delay)) [[unlikely]] {
        // Only the product left the double range: the same share, scaled
        // down first.
        offset = q * (maxJitterPercentage * (delay / 10000.0));
    }
    if (offset > delay && delay >= 0.0) [[unlikely]] {
        // The share is at most the whole delay; more is rounding, which
        // would fail below, or jitter a timer down past zero.
        offset = delay;
    }
    // Written so that a NaN fails too.
    VELIK_CLASS_ASSERT(delay >= offset, "offset( {} ) > delayIntoFuture( {} )", offset, delay);
    return offset;
}

TaskTimeDuration TimerTask::jitterOffset(TaskTimeDuration delay,
                                         std::uint8_t maxJitterPercentage) const {
    VELIK_CLASS_ASSERT(maxJitterPercentage <= 100, "maxJitterPercentage: {} > 100",
                       static_cast<char>(maxJitterPercentage));
    const std::int64_t share = std::int64_t{maxJitterPercentage} * root()->randomPercent();
    // delay * share / 10000, truncated toward zero, without the product
    // that overflows for delays of a little over ten days: whole ten
    // thousands of the delay and the rest apart (both keep the delay's sign).
    const std::int64_t whole = delay.count() / 10000;
    const std::int64_t rest = delay.count() % 10000;
    const TaskTimeDuration offset(whole * share + rest * share / 10000);
    VELIK_CLASS_ASSERT(!(delay < offset), "offset( {} ) > delayIntoFuture( {} )", offset.count(),
                       delay.count());
    return offset;
}

// --- Stopping and running now ---

void TimerTask::stopTimerTask() {
    sanityCheckCurrentRunningThread();
    const TaskTimePoint now = taskSteadyNow();
    if (timerRunning_) {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 9, "Timer stopped {}, was running", taskDisplayName());
        recordHistory(now, TaskSchedulerEventType::timerStop);
        doStopTimer();
    } else {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 9, "Timer stopped {}, was not running",
                    taskDisplayName());
    }
    unscheduleTaskPrivate(now);
    taskBusyIs(taskScheduled(), now);
}

void TimerTask::scheduleTask() {
    sanityCheckCurrentRunningThread();
    doStopTimer();
    TaskImpl::scheduleTask();
    busyFollowsQueue();
}

void TimerTask::timeout() {
    timerRunning_ = false;
    TaskImpl::scheduleTask();
    if (taskRunQueueLink_.isLinked()) {  // not dropped for suspension
        // The wheel delivers on its master timer, which a busy loop holds
        // back; that part of the lateness is on the library clock (virtual
        // time moves it alone), the queue stay after it on the steady clock.
        // Written so that a NaN expiry counts as on time. The wheel's pass
        // reading serves, with no clock read here; a call from outside a
        // pass reads the clock.
        const double pass = wheel()->passReading();
        const double late = (std::isnan(pass) ? Velik::time() : pass) - timerExpiry_.armedFor;
        const double lateNs = late > 0.0 ? std::min(late * 1e9, 1e18) : 0.0;
        timerExpiry_.deliveredLateNs = static_cast<std::int64_t>(lateNs);
        noteTimerExpiry();
    }
    busyFollowsQueue();
}

void TaskImpl::timerLatenessRecord() {
    flags_ &= ~timerExpiredFlag;
    // The queue stay is the latency just settled by the pick.
    scheduler_->timerLatenessRecord(
        *this, static_cast<TimerTask&>(*this).timerDeliveryLateness() + lastSchedulingLatency_);
}

void TimerTask::busyFollowsQueue() {
    if (taskBusy() && !taskScheduled()) {
        taskBusyIs(false, taskSteadyNow());
    }
}

void TimerTask::taskRunFromTest() {
    doStopTimer();
    TaskImpl::taskRunFromTest();
}

bool TimerTask::taskScheduled() const {
    return taskRunQueueLink_.isLinked() || timerRunning_;
}

TaskStatus TimerTask::taskStatus() const {
    TaskStatus status = TaskImpl::taskStatus();
    status.taskTimerIs(true);
    status.taskTimerRunningIs(timerRunning_);
    return status;
}

// --- State ---

double TimerTask::currentExpirationTime() const {
    sanityCheckCurrentRunningThread();
    if (taskRunQueueLink_.isLinked()) {
        return Velik::time();
    }
    if (!timerRunning_) {
        return neverSeconds;
    }
    return expirationTime();
}

double TimerTask::timerRemaining() const {
    return remainingTimeout();
}

}  // namespace Velik
