// Timer tasks: tasks that are put on their run queue after a delay.
//
// A `TimerTask` is a task whose timer is an event on its root's timer wheel.
// When the timer expires the task is scheduled in the ordinary way and runs at
// its priority like any other task; the timer only decides *when* it becomes
// runnable. Derive from it and implement `taskExecute()`:
//
//   class Housekeeping : public Velik::TimerTask {
//     public:
//       explicit Housekeeping(Velik::TaskScheduler* s)
//           : TimerTask(s, Velik::TaskPriority::low, "housekeeping") {}
//       void taskExecute() override {
//           sweep();
//           scheduleTaskJitterUp(10.0, 20);   // again in 10 to 12 s
//       }
//   };
//
// Every scheduling operation takes its delay either as double seconds or as
// a nanosecond duration (`std::chrono::milliseconds(250)` converts). "Never"
// is +infinity seconds or `TaskTimeDuration::max()`; a never delay stops the
// timer. A zero delay runs the task now and cancels a running timer.
//
// A timer task is in exactly one of three states:
//
//   idle    neither queued nor timing
//   timing  the timer runs (`timerRunning()`), the task is not queued
//   due     on its run queue, no timer
//
// Arming with a delay or jitter takes a due task off its run queue; running
// it now (`scheduleTask`, a zero delay, expiry) stops the timer. Destroying a
// task stops its timer, so a destroyed task never fires.
//
// Jitter spreads tasks that would otherwise fire together: the offset is a
// random hundredth-step fraction of `maxJitterPercentage` percent of the
// delay, drawn from the root's own seed. Every root starts that seed at the
// same value, so two roots making the same calls draw the same offsets (runs
// are repeatable); in the nanosecond form the offset is truncated to whole
// nanoseconds.
//
// Like every task, a timer task belongs to its root's thread; every public
// operation checks the thread first, and failures are assertions that end
// the process before anything has changed.
#pragma once

#include <Velik/Task.h>
#include <Velik/TimerWheel.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Velik {

class TimerTask : public TaskImpl, public TimerWheelEvent {
  public:
    static constexpr const char* traceClassName = "TimerTask";
    // The never delay of the nanosecond form.
    static constexpr TaskTimeDuration neverDelay = TaskTimeDuration::max();

    TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name);
    // Takes shared ownership of `scheduler` from its own weak self-reference;
    // throws std::bad_weak_ptr when no shared pointer owns it.
    TimerTask(TaskScheduler* scheduler, TaskPriority priority, std::string name);
    // Stops the timer and takes the task off its run queue.
    ~TimerTask() override;

    // --- Delays ---

    // Restarts the timer to run the task `delay` from now (taking it off its
    // run queue); never stops it, zero runs it now, and a delay that is not a
    // number arms the timer due at once. Arming after `handleDestroy`
    // asserts, as `scheduleTask` does.
    void scheduleTaskDelay(double delay);
    void scheduleTaskDelay(TaskTimeDuration delay);
    // As `scheduleTaskDelay(delay + offset)`, the offset random in
    // [0, delay * maxJitterPercentage / 100], exact for every delay; asserts
    // beyond 100 percent.
    void scheduleTaskJitterUp(double delay, std::uint8_t maxJitterPercentage);
    void scheduleTaskJitterUp(TaskTimeDuration delay, std::uint8_t maxJitterPercentage);
    // As `scheduleTaskDelay(delay - offset)`: never negative, and a result of
    // zero runs the task now.
    void scheduleTaskJitterDown(double delay, std::uint8_t maxJitterPercentage);
    void scheduleTaskJitterDown(TaskTimeDuration delay, std::uint8_t maxJitterPercentage);
    // Brings the run forward to `delay` from now, never back: arms an idle
    // timer, shortens a later one, and leaves a sooner timer or a due task
    // alone. A delay that is not a number comes before any timer (due at
    // once); a never delay is an assertion failure.
    void scheduleTaskLowestDelay(double delay);
    void scheduleTaskLowestDelay(TaskTimeDuration delay);

    // Restarts the timer to run the task at the absolute library-clock time
    // `expiry` (`Velik::time()` seconds), taking it off its run queue: the
    // exact time, with no drift from a clock reading between runs. A time
    // that has passed (or is not a number) makes the task due on the wheel's
    // next pass; +infinity stops the timer. Asserts after `handleDestroy`.
    void scheduleTaskAt(double expiry);

    // Stops the timer (if running) and takes the task off its run queue.
    void stopTimerTask();

    // --- The task kind's overrides ---

    // Runs the task now: stops a running timer first.
    void scheduleTask() override;
    // The wheel's expiry: the timer has stopped, the task is scheduled.
    void timeout() override;
    // Stops a running timer, then runs the task once (see `TaskImpl`).
    void taskRunFromTest() override;
    // Queued, or timing. Never throws.
    bool taskScheduled() const override;
    // The task's status with `taskTimer` and `taskTimerRunning`.
    TaskStatus taskStatus() const override;

    // --- State ---

    // True from a timer start until it expires, stops, or is superseded.
    bool timerRunning() const { return timerRunning_; }
    // Library-clock time the task becomes due: now when queued, +infinity
    // when idle, else the timer's expiry.
    double currentExpirationTime() const;
    // Seconds until the timer expires: +infinity when not running, never
    // below 0.
    double timerRemaining() const;
    // How late the wheel delivered the expiry that queued the task (library
    // clock); meaningful from that expiry to the pick of the run it causes,
    // which records the timer lateness: this and the queue stay
    // (RunHistograms.h).
    TaskTimeDuration timerDeliveryLateness() const {
        return TaskTimeDuration(timerExpiry_.deliveredLateNs);
    }

    // The offset a jitter request draws (one draw from the root's seed).
    double jitterOffset(double delay, std::uint8_t maxJitterPercentage) const;
    TaskTimeDuration jitterOffset(TaskTimeDuration delay, std::uint8_t maxJitterPercentage) const;

  protected:
    // Arms the timer `delay` seconds from now; with `restart` false only when
    // that is sooner than the running timer. Returns whether it armed.
    bool doStartTimer(double delay, bool restart);
    // Stops a running timer; nothing when none runs.
    void doStopTimer();

  private:
    template <typename Delay>
    void _scheduleTaskJitterUp(Delay delay, std::uint8_t maxJitterPercentage);
    template <typename Delay>
    void _scheduleTaskJitterDown(Delay delay, std::uint8_t maxJitterPercentage);
    template <typename Delay>
    void _scheduleTaskLowestDelay(Delay delay);
    template <typename Delay>
    void scheduleTaskDelayedPrivate(Delay delay, bool restart);
    const std::shared_ptr<TimerWheel>& wheel() const;
    // The bookkeeping of a timer just armed: running, recorded, busy.
    void timerStarted(TaskTimePoint now);
    // After a run request that a suspended task dropped: idle, not timing.
    void busyFollowsQueue();

    bool timerRunning_ = false;
    // One or the other, never needed at once: from arming to expiry, the
    // library-clock time the timer is armed for; from the expiry that
    // queued the task to its pick, how late the wheel delivered it.
    union {
        double armedFor;
        std::int64_t deliveredLateNs;
    } timerExpiry_{0.0};
};

}  // namespace Velik
