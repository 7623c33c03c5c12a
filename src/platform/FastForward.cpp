#include "Velik/FastForward.h"

#include "Velik/Assert.h"
#include "Velik/Fmtrace.h"
#include "Velik/LibeventAdditions.h"
#include "Velik/LibeventFactory.h"

#include <algorithm>

namespace Velik {

bool fastForward = false;

namespace {

// A few microseconds past the first timer's expiry, so that it is certainly
// due when the pass after the jump reads the base's clock.
constexpr suseconds_t extraDelayMicros = 2;

thread_local timeval virtualTimeOffset{0, 0};
// The same in seconds, kept beside it: `Velik::time()` adds it on every read.
thread_local double virtualTimeOffsetSeconds = 0.0;

double toSeconds(const timeval& tv) {
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

}  // namespace

void setLeFastForward(bool enabled) {
    leInit();
    VELIK_ASSERT(leMainThread(), "FastForward invoked from non-main thread");
    if (fastForward == enabled) {
        return;
    }
    fastForward = enabled;
    for (FastForwardChangeNotifier notifier : fastForwardChangeNotifiers()) {
        notifier();
    }
}

bool leFastForward() {
    return fastForward;
}

std::set<FastForwardChangeNotifier>& fastForwardChangeNotifiers() {
    static std::set<FastForwardChangeNotifier> notifiers;
    return notifiers;
}

void leRegisterFastForwardChangeNotifier(FastForwardChangeNotifier notifier) {
    fastForwardChangeNotifiers().insert(notifier);
}

void Platform::registerFastForwardChangeNotifier(FastForwardChangeNotifier notifier) {
    leRegisterFastForwardChangeNotifier(notifier);
}

double leVirtualTimeOffset() {
    return virtualTimeOffsetSeconds;
}

void applyFastForwardDelta(const timeval* delta) {
    leInit();
    event_base_timeout_subtract_offset(leEventBase(), delta);
    timeradd(&virtualTimeOffset, delta, &virtualTimeOffset);
    virtualTimeOffsetSeconds = toSeconds(virtualTimeOffset);
    VELIK_FTRACE(Impl::leDebugHandle(), 2, "Increasing virtual time offset by {} to {}",
                 toSeconds(*delta), toSeconds(virtualTimeOffset));
}

bool fastForwardDelayToFirstTimer(timeval* delay) {
    VELIK_ASSERT(fastForward, "Called without fast forward enabled");
    leInit();
    event_base* base = leEventBase();
    timeval first;
    if (event_base_get_first_timeout(base, &first) != 0) {
        VELIK_FTRACE(Impl::leDebugHandle(), 9, "no timers");
        return false;
    }
    timeval now = Impl::leBaseNow(base);

    if (!timercmp(&first, &now, >)) {
        VELIK_FTRACE(Impl::leDebugHandle(), 9, "first timer expired at {} now {} return zero delta",
                     toSeconds(first), toSeconds(now));
        *delay = {0, 0};
        return true;
    }
    timeval gap;
    timersub(&first, &now, &gap);
    timeval extra{0, extraDelayMicros};
    timeradd(&gap, &extra, delay);
    VELIK_FTRACE(Impl::leDebugHandle(), 9,
                 "first timer will at {} now {} delta {} extraDelay {} return delta {}",
                 toSeconds(first), toSeconds(now), toSeconds(gap), toSeconds(extra),
                 toSeconds(*delay));
    return true;
}

void eventLoopFastForward(const timeval* delta) {
    // A zero jump moves no timer: rewriting every expiry would only cost.
    if (timerisset(delta)) {
        applyFastForwardDelta(delta);
    }
    // One non-blocking pass runs everything due, as a dispatch broken by a
    // zero time-out would, without arming and deleting a break event.
    leInit();
    Impl::leDispatchOnce(leEventBase());
}

void eventLoopFastForwardToFirstTimer(double maxTimeout) {
    VELIK_FTRACE(Impl::leDebugHandle(), 5, "maxTimeout {}", maxTimeout);
    VELIK_ASSERT(fastForward, "Called without fastForward enabled");
    if (Impl::leCallbackRequested()) {
        // A requested callback is a timer due now: the first timer is due,
        // the jump is zero, and a pass has work. Most passes of a busy loop
        // are this one; scanning the base's timers would cost them the most.
        const timeval none{0, 0};
        eventLoopFastForward(&none);
        return;
    }
    timeval longest = Impl::secondsToTimeval(maxTimeout);
    timeval delay;
    if (fastForwardDelayToFirstTimer(&delay)) {
        eventLoopFastForward(timercmp(&delay, &longest, <) ? &delay : &longest);
    } else {
        eventLoopFastForward(&longest);
    }
}

}  // namespace Velik
