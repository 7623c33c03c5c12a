// The event platform on libevent: one event base per thread, controls that
// arm libevent events on it, and the loop entry points.
//
// A thread that runs this platform switches to thread-local singletons first
// and then creates controls and runs its loop:
//
//   Velik::useThreadLocalSingletons();
//   auto timer = Velik::getLeTimerControl(&handler);
//   timer->setTimeout(1.5);
//   Velik::doLeEventLoop();          // until no event is left
//
// The base is created lazily, with edge-triggered support and two priority
// levels (`Platform::EventPriority`), by the first control or loop run on
// the thread. Controls arm their events on the base of the thread that made
// them and must stay on that thread.
//
// Handler exceptions: an exception that a handler's hook does not accept is
// carried out of libevent (which must not be unwound through, or the base
// stays marked as running) and rethrown by the loop entry point that ran the
// loop. The loop stops after the notification that threw.
//
// All trace output goes to the "VelikLibevent" facility; libevent's own log
// messages are routed there too, and a libevent fatal error becomes an
// assertion failure instead of an exit.
#pragma once

#include <Velik/Debug.h>
#include <Velik/Platform.h>

#include <event2/event.h>
#include <event2/event_struct.h>

#include <memory>

namespace Velik {

// A one-shot timer on the thread's base.
class LibeventTimerControl : public Platform::TimerControl {
  public:
    static constexpr const char* traceClassName = "LibeventTimerControl";

    // Initialises the thread's base if needed; the timer starts disarmed.
    LibeventTimerControl(Platform::TimeoutHandler* handler, Platform::EventPriority priority);
    LibeventTimerControl(const LibeventTimerControl&) = delete;
    LibeventTimerControl& operator=(const LibeventTimerControl&) = delete;
    // Disarms.
    ~LibeventTimerControl() override;

    // Arms (or re-arms) the timer `seconds` from now, to the microsecond
    // (truncated). A negative delay counts as already due.
    void setTimeout(double seconds) override;
    void delTimeout() override;
    // Measured against the wall clock: +infinity when disarmed, 0.0 once the
    // expiry time has passed (even before the loop ran the timer).
    double remainingTimeout() const override;

    Platform::TimeoutHandler* handler() const { return handler_; }
    Platform::EventPriority priority() const { return priority_; }

  private:
    // Binds the event to the thread's base with the timer's callback and
    // priority.
    void assign();

    Platform::TimeoutHandler* handler_;
    Platform::EventPriority priority_;
    event event_;
};

// Watches one descriptor. Reads are persistent; writes are one-shot: after
// one `writeFdEvent` the handler calls `setWrites(true)` to hear of the next
// writability. A new control wants reads and not writes.
class LibeventFdControl : public Platform::FdControl {
  public:
    static constexpr const char* traceClassName = "LibeventFdControl";

    // Initialises the thread's base if needed; no descriptor is bound.
    explicit LibeventFdControl(Platform::FdEventHandler* handler);
    LibeventFdControl(const LibeventFdControl&) = delete;
    LibeventFdControl& operator=(const LibeventFdControl&) = delete;
    // `delFd()`; the descriptor is not closed.
    ~LibeventFdControl() override;

    void setReads(bool wanted) override;
    void setWrites(bool wanted) override;
    // Binds `fd` and makes it non-blocking; a failing `fcntl` aborts the
    // process. Arming a descriptor the loop cannot poll (a regular file,
    // /dev/null) throws `RuntimeException` "cannot watch fd <fd>: <error>",
    // here and in `setReads` / `setWrites`; the descriptor stays bound and
    // that event unarmed.
    void setFd(int fd) override;
    void delFd() override;
    int getFd() const override { return fd_; }
    void clearEvents() override;

    Platform::FdEventHandler* handler() const { return handler_; }
    bool readsWanted() const { return readsWanted_; }
    bool writesWanted() const { return writesWanted_; }

  private:
    void armRead();
    void armWrite();
    void addOrThrow(event* ev);

    Platform::FdEventHandler* handler_;
    int fd_ = -1;
    bool readsWanted_ = true;
    bool writesWanted_ = false;
    event readEvent_;
    event writeEvent_;
};

// A deferred callback: a zero-delay one-shot timer at the default priority
// on the thread's base. Requests made while one is pending re-arm the same
// timer, so they coalesce into one delivery.
class LibeventCallbackControl : public Platform::CallbackControl,
                                private Platform::TimeoutHandler,
                                private LibeventTimerControl {
  public:
    static constexpr const char* traceClassName = "LibeventCallbackControl";

    explicit LibeventCallbackControl(Platform::CallbackHandler* handler);
    // Cancels a pending request.
    ~LibeventCallbackControl() override;

    void requestCallback() override;
    void cancelCallback() override;
    bool pendingCallback() const override;

    Platform::CallbackHandler* handler() const { return handler_; }

  private:
    // The inner timer expired: delivers `callback()`.
    void timeout() override;
    // Keeps the thread's count of requested callbacks (`leCallbackRequested`).
    void markRequested(bool requested);

    Platform::CallbackHandler* handler_;
    bool requested_ = false;
};

// Breaks the thread's loop after a time-out: lives on the stack of a loop
// entry point, and its destructor deletes its event however the loop ended.
class EvLoopBreak {
  public:
    static constexpr const char* traceClassName = "EvLoopBreak";

    // Arms the break `seconds` from now at the default priority.
    EvLoopBreak(event_base* base, double seconds);
    EvLoopBreak(const EvLoopBreak&) = delete;
    EvLoopBreak& operator=(const EvLoopBreak&) = delete;
    ~EvLoopBreak();

    // libevent callback of the break event (argument: the `EvLoopBreak`).
    static void handleBaseLoopBreak(evutil_socket_t fd, short events, void* arg);

  private:
    event event_;
    timeval timeout_;
};

// libevent callbacks of the controls (argument: the control).
void handleFdRead(evutil_socket_t fd, short events, void* arg);
void handleFdWrite(evutil_socket_t fd, short events, void* arg);
void handleTimeout(evutil_socket_t fd, short events, void* arg);

// libevent's log hook: severity 0..3 (debug, message, warning, error) is
// written at level 9, 5, 1, 0 of "VelikLibevent"; any other severity is an
// assertion failure.
void le_debug_cb(int severity, const char* msg);
// libevent's fatal-error hook: an assertion failure
// "libevent fatal error:<err>".
void le_fatal_cb(int err);

// Gives the thread a base unless it has one.
void leInit();
// A new base with edge-triggered support and two priorities; sets up
// libevent (threading, log and fatal hooks) once per process first. Never
// returns null.
event_base* leCreateBase();
// Makes `base` the thread's base and records whether this is the main thread.
// Registering the base the thread already has is allowed; a different one
// is an assertion failure.
void leRegisterBase(event_base* base);
// Whether the thread has a base.
bool leInitialized();
// The thread's base, or null.
event_base* leEventBase();
// In a forked child: makes the inherited base usable (`event_reinit`), or
// gives the thread a base when it has none.
void leForkReinit();
// Frees the thread's base and forgets it; nothing when there is none. The
// thread's controls must be destroyed first. A registered base is freed at
// thread exit anyway, after the thread-local objects made after it.
void leFree();
// Records `isMainThread()` in the thread's main-thread flag.
void setMainThread();
// The thread's main-thread flag.
bool leMainThread();
// Sets `ev`'s priority; failure is an assertion failure.
void eventPrioritySet(event* ev, Platform::EventPriority priority);

std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler);
std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler);
std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler,
                                                          Platform::EventPriority priority);
std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(Platform::CallbackHandler* handler);

// Runs the thread's loop until no event is left. Under fast-forward it first
// jumps to the first timer.
void doLeEventLoop();
// Runs the loop for `seconds`: in real time, or under fast-forward in
// virtual time by jumping from timer to timer, returning as soon as
// `Velik::time()` has moved on by `seconds`.
void doLeEventLoop(double seconds);
// One loop pass of at most `maxTimeout` seconds (virtual under
// fast-forward), for a caller that waits for a condition.
void doLeEventLoopInWaitfor(double maxTimeout);
// Runs the loop until `seconds` have passed in real time (or no event is
// left).
void eventLoopTimeout(double seconds);

// Makes the loop entry point running on this thread (any of the above, and
// `eventLoopFastForward*`) return after the current callback, with
// everything else left as it is: armed events stay armed, and a later run
// carries on with them. Under fast-forward the jumping from timer to timer
// stops too. A stop inside a nested run ends every run around it as well.
// Ignored when no loop runs on the thread: a later run is not affected.
// The loop's thread only (from a handler or a task); other threads post it
// (Velik/Inbox.h).
void stopLeEventLoop();
// Whether a loop entry point is running on this thread.
bool leEventLoopRunning();

namespace Impl {

// The "VelikLibevent" trace handle.
Platform::DebugHandler* leDebugHandle();

// Seconds as a relative libevent time-out: whole seconds truncated toward
// zero, microseconds from the fraction, truncated.
timeval secondsToTimeval(double seconds);
// How far libevent's reading of "now" may trail the library clock.
timeval leClockLag();
// A timer delay as libevent's time-out: rounded up and lengthened by
// `leClockLag()`, so that the timer never expires before `seconds` have
// passed on the library clock; zero when not positive.
timeval delayToTimeval(double seconds);

// `event_base_dispatch` on `base`, then rethrows the handler exception that
// stopped it, if any.
void leDispatch(event_base* base);
// One non-blocking pass of `base`'s loop: runs what is due now, waits for
// nothing; rethrows as `leDispatch` does.
void leDispatchOnce(event_base* base);

// Whether a callback of this thread is requested and not yet delivered or
// cancelled. Such a callback is due now, so a loop pass has work to do
// without looking at the base's timers.
bool leCallbackRequested();

}  // namespace Impl
}  // namespace Velik
