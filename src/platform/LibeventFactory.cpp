#include "Velik/LibeventFactory.h"

#include "Velik/Assert.h"
#include "Velik/Errno.h"
#include "Velik/Exception.h"
#include "Velik/FastForward.h"
#include "Velik/Fmtrace.h"
#include "Velik/LibeventAdditions.h"
#include "Velik/Thread.h"
#include "Velik/Time.h"

#include <event2/thread.h>
#include <fcntl.h>

#include <cerrno>
#include <cmath>
#include <ctime>
#include <exception>
#include <limits>

namespace Velik {

namespace {

// Per-thread state; zero until the thread initialises its loop.
thread_local event_base* threadBase = nullptr;
thread_local bool threadIsMain = false;
// A handler exception on its way from inside libevent to the loop's caller.
thread_local std::exception_ptr carriedException;

// Registered at load, like the library's other facilities, and kept in a
// plain pointer for the hot paths. Code that runs before this file's static
// initialisation sees null there, which the trace sites take as "off".
Platform::DebugHandler* const leTrace = Impl::leDebugHandle();

// libevent must not be unwound through: an exception escaping a callback
// leaves the base marked as running, and every later dispatch on it fails.
// So the exception is parked, the loop is told to stop after this callback,
// and `Impl::leDispatch` rethrows it.
void carryException() noexcept {
    if (!carriedException) {
        carriedException = std::current_exception();
    }
    event_base_loopbreak(threadBase);
}

// Loop entry points running on this thread, and whether one was asked to
// stop. The request outlives the dispatch it broke, so that an entry point
// that dispatches repeatedly (fast-forward) sees it, and dies with the
// outermost entry point.
thread_local int loopDepth = 0;
thread_local bool stopRequested = false;

// Callbacks of this thread requested and not yet delivered or cancelled:
// each is a zero-delay timer, due now, so while this is positive the
// fast-forward loop knows its next pass has work without scanning the base.
// Never more than the callbacks truly pending on the thread's base: freeing
// the base resets it, and a control outliving its base only takes away.
thread_local int requestedCallbacks = 0;

class LoopRun {
  public:
    LoopRun() { ++loopDepth; }
    LoopRun(const LoopRun&) = delete;
    LoopRun& operator=(const LoopRun&) = delete;
    ~LoopRun() {
        if (--loopDepth == 0) {
            stopRequested = false;
        }
    }
};

// Process-wide libevent set-up, once, before the first base.
struct LeInitializer {
    static constexpr const char* traceClassName = "LeInitializer";

    LeInitializer() {
        int rc = evthread_use_pthreads();
        VELIK_CLASS_ASSERT(rc == 0, "failed to set up libevent threading: {}", rc);
        event_set_fatal_callback(le_fatal_cb);
        event_set_log_callback(le_debug_cb);
        VELIK_TRACE(leTrace, 4, "libevent {} set up", event_get_version());
    }
};

void assignEmpty(event* ev, event_base* base) {
    event_assign(ev, base, -1, 0, nullptr, nullptr);
}

}  // namespace

namespace Impl {

Platform::DebugHandler* leDebugHandle() {
    static const std::shared_ptr<Platform::DebugHandler> handle =
        Platform::getDebugHandler("VelikLibevent");
    return handle.get();
}

timeval secondsToTimeval(double seconds) {
    // Beyond about thirty years is "never" for every caller; negative (and
    // NaN) delays are due now.
    constexpr double longest = 1e9;
    if (!(seconds > 0.0)) {
        return {0, 0};
    }
    if (seconds > longest) {
        seconds = longest;
    }
    auto whole = static_cast<time_t>(seconds);
    auto micros = static_cast<suseconds_t>(1e6 * (seconds - static_cast<double>(whole)));
    return {whole, micros};
}

timeval leClockLag() {
    // libevent reads "now" from the coarse monotonic clock (one kernel tick,
    // a few milliseconds) in whole microseconds, truncated; the precise clock
    // it can be asked for costs a system call per loop pass. So its "now" may
    // trail the library clock by up to a tick and a microsecond.
    static const timeval lag = [] {
        timespec resolution{0, 0};
#ifdef CLOCK_MONOTONIC_COARSE
        clock_getres(CLOCK_MONOTONIC_COARSE, &resolution);
#endif
        long micros =
            static_cast<long>(resolution.tv_sec) * 1000000 + (resolution.tv_nsec + 999) / 1000 + 1;
        return timeval{static_cast<time_t>(micros / 1000000),
                       static_cast<suseconds_t>(micros % 1000000)};
    }();
    return lag;
}

timeval delayToTimeval(double seconds) {
    if (!(seconds > 0.0)) {
        return {0, 0};
    }
    // Rounded up to the microsecond and lengthened by the lag of libevent's
    // clock: a timer is never early on the library clock (it may be late by
    // up to that lag).
    timeval tv = secondsToTimeval(std::ceil(seconds * 1e6) / 1e6);
    timeval lag = leClockLag();
    timeval later;
    timeradd(&tv, &lag, &later);
    return later;
}

namespace {

void rethrowCarried() {
    if (carriedException) {
        std::exception_ptr e = std::move(carriedException);
        carriedException = nullptr;
        std::rethrow_exception(e);
    }
}

}  // namespace

void leDispatch(event_base* base) {
    LoopRun run;
    if (!stopRequested) {
        event_base_dispatch(base);
    }
    rethrowCarried();
}

void leDispatchOnce(event_base* base) {
    LoopRun run;
    if (!stopRequested) {
        // Without EVLOOP_ONCE a non-blocking loop goes on while anything it
        // ran made more work due: a callback that keeps requesting itself
        // would never let the pass end.
        event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
    }
    rethrowCarried();
}

bool leCallbackRequested() {
    return requestedCallbacks > 0;
}

}  // namespace Impl

// ---------------------------------------------------------------- base

event_base* leCreateBase() {
    static LeInitializer once;
    event_config* config = event_config_new();
    event_config_require_features(config, EV_FEATURE_ET);
    event_base* base = event_base_new_with_config(config);
    event_config_free(config);
    VELIK_ASSERT(base != nullptr, "Failed to create event_base");
    event_base_priority_init(base, 2);
    return base;
}

namespace {

// Frees the thread's base when the thread ends. Made when the base is
// registered, so thread-local objects made later that hold controls on the
// base (the thread's scheduler root, for one) are destroyed before it.
struct ThreadBaseReleaser {
    ~ThreadBaseReleaser() { leFree(); }
};

}  // namespace

void leRegisterBase(event_base* base) {
    VELIK_ASSERT(threadBase == nullptr || threadBase == base,
                 "Tried to register a base:{} but a thread_local  base already exists: {}",
                 fmt::ptr(base), fmt::ptr(threadBase));
    static thread_local ThreadBaseReleaser releaser;
    (void)releaser;
    threadBase = base;
    setMainThread();
}

void leInit() {
    if (!threadBase) {
        leRegisterBase(leCreateBase());
    }
}

bool leInitialized() {
    return threadBase != nullptr;
}

event_base* leEventBase() {
    return threadBase;
}

void leForkReinit() {
    if (threadBase) {
        event_reinit(threadBase);
    } else {
        leInit();
    }
}

void leFree() {
    if (threadBase) {
        event_base_free(threadBase);
        threadBase = nullptr;
        requestedCallbacks = 0;
    }
}

void setMainThread() {
    threadIsMain = isMainThread();
}

bool leMainThread() {
    return threadIsMain;
}

void eventPrioritySet(event* ev, Platform::EventPriority priority) {
    VELIK_FTRACE(leTrace, 9, "Setting priority of {} to {}", fmt::ptr(ev), priority);
    int rc = event_priority_set(ev, priority);
    VELIK_ASSERT(rc == 0, "Failed to set priority on {} to {} rc {}", fmt::ptr(ev), priority, rc);
}

// ---------------------------------------------------------------- log hooks

void le_debug_cb(int severity, const char* msg) {
    static constexpr unsigned levels[] = {9, 5, 1, 0};
    // libevent warns before it returns a failure, and the caller reads the
    // failure's errno after that: the trace must not change it.
    const int error = errno;
    VELIK_ASSERT(severity >= 0 && severity <= 3, "invalid libevent severity:{} msg:{}", severity,
                 msg);
    VELIK_FTRACE(leTrace, levels[severity], "{}", msg);
    errno = error;
}

void le_fatal_cb(int err) {
    std::string text = fmt::format("libevent fatal error:{}", err);
    Impl::assertFailed(VELIK_SOURCE_NAME, __LINE__, false, __func__, nullptr, "{}", text);
}

// ---------------------------------------------------------------- timer

LibeventTimerControl::LibeventTimerControl(Platform::TimeoutHandler* handler,
                                           Platform::EventPriority priority)
    : handler_(handler), priority_(priority) {
    leInit();
    assign();
}

void LibeventTimerControl::assign() {
    event_assign(&event_, threadBase, -1, 0, handleTimeout, this);
    eventPrioritySet(&event_, priority_);
}

LibeventTimerControl::~LibeventTimerControl() {
    delTimeout();
}

void LibeventTimerControl::setTimeout(double seconds) {
    VELIK_TRACE(leTrace, 9, "Timer {} set timeout {}", fmt::ptr(this), seconds);
    timeval tv = Impl::delayToTimeval(seconds);
    // The event was assigned once, at construction: re-assigning it on every
    // arming would add a fifth to the cost of a callback round trip, and
    // adding a pending timer replaces its expiry anyway.
    event_add(&event_, &tv);
}

void LibeventTimerControl::delTimeout() {
    VELIK_TRACE(leTrace, 9, "Timer {} del timeout", fmt::ptr(this));
    event_del(&event_);
}

double LibeventTimerControl::remainingTimeout() const {
    if (!event_pending(&event_, EV_TIMEOUT, nullptr)) {
        return std::numeric_limits<double>::infinity();
    }
    // Both readings on libevent's own clock; the lag added when arming is not
    // part of what the caller asked for.
    timeval expiry = Impl::leEventExpiry(&event_);
    timeval now = Impl::leBaseNow(event_get_base(&event_));
    timeval lag = Impl::leClockLag();
    timeval left;
    timersub(&expiry, &now, &left);
    if (!timercmp(&left, &lag, >)) {
        return 0.0;
    }
    timersub(&left, &lag, &left);
    return static_cast<double>(left.tv_sec) + static_cast<double>(left.tv_usec) / 1e6;
}

void handleTimeout(evutil_socket_t, short, void* arg) {
    auto* control = static_cast<LibeventTimerControl*>(arg);
    VELIK_FTRACE(leTrace, 9, "Timer {} expired", fmt::ptr(control));
    Platform::TimeoutHandler* handler = control->handler();
    try {
        try {
            handler->timeout();
        } catch (...) {
            if (!handler->handleTimeoutException()) {
                throw;
            }
            VELIK_FTRACE(leTrace, 9, "Timeout notification exception was handled");
        }
    } catch (...) {
        carryException();
    }
}

// ---------------------------------------------------------------- callback

LibeventCallbackControl::LibeventCallbackControl(Platform::CallbackHandler* handler)
    : LibeventTimerControl(static_cast<Platform::TimeoutHandler*>(this),
                           Platform::eventPriorityDefault),
      handler_(handler) {}

LibeventCallbackControl::~LibeventCallbackControl() {
    cancelCallback();
    delTimeout();
}

void LibeventCallbackControl::requestCallback() {
    VELIK_TRACE(leTrace, 9, "Callback {} request", fmt::ptr(this));
    markRequested(true);
    LibeventTimerControl::setTimeout(0.0);
}

void LibeventCallbackControl::cancelCallback() {
    VELIK_TRACE(leTrace, 9, "Callback {} cancel", fmt::ptr(this));
    markRequested(false);
    LibeventTimerControl::delTimeout();
}

void LibeventCallbackControl::markRequested(bool requested) {
    if (requested_ != requested) {
        requested_ = requested;
        requestedCallbacks += requested ? 1 : -1;
    }
}

bool LibeventCallbackControl::pendingCallback() const {
    return std::isfinite(remainingTimeout());
}

void LibeventCallbackControl::timeout() {
    VELIK_TRACE(leTrace, 9, "Callback {} execute", fmt::ptr(this));
    markRequested(false);  // before the handler, which may request again
    try {
        handler_->callback();
    } catch (...) {
        if (!handler_->handleCallbackException()) {
            throw;
        }
        VELIK_TRACE(leTrace, 9, "Callback notification exception was handled");
    }
}

// ---------------------------------------------------------------- descriptor

LibeventFdControl::LibeventFdControl(Platform::FdEventHandler* handler) : handler_(handler) {
    leInit();
    assignEmpty(&readEvent_, threadBase);
    eventPrioritySet(&readEvent_, Platform::eventPriorityDefault);
    assignEmpty(&writeEvent_, threadBase);
    eventPrioritySet(&writeEvent_, Platform::eventPriorityDefault);
}

LibeventFdControl::~LibeventFdControl() {
    LibeventFdControl::delFd();
}

void LibeventFdControl::armRead() {
    event_assign(&readEvent_, threadBase, fd_, EV_READ | EV_PERSIST, handleFdRead, this);
    eventPrioritySet(&readEvent_, Platform::eventPriorityDefault);
    addOrThrow(&readEvent_);
}

void LibeventFdControl::armWrite() {
    event_assign(&writeEvent_, threadBase, fd_, EV_WRITE, handleFdWrite, this);
    eventPrioritySet(&writeEvent_, Platform::eventPriorityDefault);
    addOrThrow(&writeEvent_);
}

// The loop refuses descriptors it cannot poll (a regular file, /dev/null),
// and the error is the caller's to see: an event left unarmed would never
// fire. The text is the one the framework platform gives.
void LibeventFdControl::addOrThrow(event* ev) {
    if (event_add(ev, nullptr) != 0) {
        const int error = errno;
        RuntimeException::throwException(
            fmt::format("cannot watch fd {}: {}", fd_, Velik::strerror(error)));
    }
}

void LibeventFdControl::setFd(int fd) {
    VELIK_TRACE(leTrace, 9, "FdControl {} set fd {}", fmt::ptr(this), fd);
    fd_ = fd;
    // Failing here means the caller handed over a descriptor that is not
    // open: abort like a C assertion, in every build.
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        Fmt::Impl::standardAssertionFailed("flags >= 0", VELIK_SOURCE_NAME, __LINE__, __func__);
    }
    int result = fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    if (result != 0) {
        Fmt::Impl::standardAssertionFailed("result == 0", VELIK_SOURCE_NAME, __LINE__, __func__);
    }
    if (readsWanted_) {
        event_del(&readEvent_);
        armRead();
    }
    if (writesWanted_) {
        event_del(&writeEvent_);
        armWrite();
    }
}

void LibeventFdControl::setReads(bool wanted) {
    readsWanted_ = wanted;
    if (fd_ < 0) {
        return;
    }
    event_del(&readEvent_);
    if (wanted) {
        armRead();
    } else {
        assignEmpty(&readEvent_, threadBase);
    }
}

void LibeventFdControl::setWrites(bool wanted) {
    writesWanted_ = wanted;
    if (fd_ < 0) {
        return;
    }
    event_del(&writeEvent_);
    if (wanted) {
        armWrite();
    } else {
        assignEmpty(&writeEvent_, threadBase);
    }
}

void LibeventFdControl::clearEvents() {
    event_del(&readEvent_);
    event_del(&writeEvent_);
    assignEmpty(&readEvent_, threadBase);
    assignEmpty(&writeEvent_, threadBase);
}

void LibeventFdControl::delFd() {
    clearEvents();
    fd_ = -1;
}

namespace {

template <void (Platform::FdEventHandler::*notify)(int)>
void deliverFdEvent(LibeventFdControl* control) noexcept {
    Platform::FdEventHandler* handler = control->handler();
    try {
        try {
            (handler->*notify)(control->getFd());
        } catch (...) {
            if (!handler->handleFdException(control->getFd())) {
                throw;
            }
        }
    } catch (...) {
        carryException();
    }
}

}  // namespace

void handleFdRead(evutil_socket_t, short, void* arg) {
    deliverFdEvent<&Platform::FdEventHandler::readFdEvent>(static_cast<LibeventFdControl*>(arg));
}

void handleFdWrite(evutil_socket_t, short, void* arg) {
    deliverFdEvent<&Platform::FdEventHandler::writeFdEvent>(static_cast<LibeventFdControl*>(arg));
}

// ---------------------------------------------------------------- factories

std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler) {
    return std::make_shared<LibeventFdControl>(handler);
}

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler) {
    return getLeTimerControl(handler, Platform::eventPriorityDefault);
}

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler,
                                                          Platform::EventPriority priority) {
    return std::make_shared<LibeventTimerControl>(handler, priority);
}

std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(
    Platform::CallbackHandler* handler) {
    return std::make_shared<LibeventCallbackControl>(handler);
}

// ---------------------------------------------------------------- loops

EvLoopBreak::EvLoopBreak(event_base* base, double seconds)
    : timeout_(Impl::secondsToTimeval(seconds)) {
    event_assign(&event_, base, -1, 0, handleBaseLoopBreak, this);
    eventPrioritySet(&event_, Platform::eventPriorityDefault);
    event_add(&event_, &timeout_);
    VELIK_TRACE(leTrace, 8, "{} timeout {}", fmt::ptr(this), seconds);
}

EvLoopBreak::~EvLoopBreak() {
    VELIK_TRACE(leTrace, 9, "~EvLoopBreak");
    event_del(&event_);
}

void EvLoopBreak::handleBaseLoopBreak(evutil_socket_t, short, void* arg) {
    auto* self = static_cast<EvLoopBreak*>(arg);
    event_base_loopbreak(threadBase);
    event_del(&self->event_);
    VELIK_TRACE(leTrace, 8, "{} loop break", fmt::ptr(self));
}

void eventLoopTimeout(double seconds) {
    VELIK_FTRACE(leTrace, 5, "timeout {}", seconds);
    EvLoopBreak loopBreak(threadBase, seconds);
    Impl::leDispatch(threadBase);
}

void doLeEventLoop() {
    leInit();
    timeval delay;
    if (leFastForward() && fastForwardDelayToFirstTimer(&delay) && timerisset(&delay)) {
        applyFastForwardDelta(&delay);
    }
    Impl::leDispatch(threadBase);
}

void doLeEventLoop(double seconds) {
    VELIK_FTRACE(leTrace, 5, "timeout {}", seconds);
    leInit();
    if (!leFastForward()) {
        eventLoopTimeout(seconds);
        return;
    }
    LoopRun run;
    double end = Velik::time() + seconds;
    for (double now = Velik::time(); end > now && !stopRequested; now = Velik::time()) {
        eventLoopFastForwardToFirstTimer(end - now);
    }
}

void doLeEventLoopInWaitfor(double maxTimeout) {
    VELIK_FTRACE(leTrace, 5, "maxTimeout {}", maxTimeout);
    leInit();
    if (leFastForward()) {
        eventLoopFastForwardToFirstTimer(maxTimeout);
    } else {
        eventLoopTimeout(maxTimeout);
    }
}

void stopLeEventLoop() {
    if (loopDepth == 0) {
        return;
    }
    stopRequested = true;
    event_base_loopbreak(threadBase);
}

bool leEventLoopRunning() {
    return loopDepth > 0;
}

}  // namespace Velik
