#include "Velik/LibeventAdditions.h"

#include <event2/event_struct.h>

#include <algorithm>
#include <vector>

namespace {

// libevent keeps a "common time-out" marker in the high bits of the
// microseconds of events queued on a common time-out; the low 20 bits are
// the microseconds proper.
constexpr suseconds_t microsecondsMask = 0xfffff;

// Re-adding an event whose clock moved on between reading "now" and the add
// lands it a little late; a few corrections bring it onto its exact target.
constexpr int maxReaddAttempts = 4;

struct PendingTimer {
    event* ev;
    timeval expiry;
};

timeval expiryOf(const event* ev) {
    timeval tv = ev->ev_timeout;
    if (tv.tv_usec >= 1000000) {
        tv.tv_usec &= microsecondsMask;
    }
    return tv;
}

int collectEvent(const event_base*, const event* ev, void* arg) {
    static_cast<std::vector<event*>*>(arg)->push_back(const_cast<event*>(ev));
    return 0;
}

// Every event of the base with a pending time-out, earliest first (events
// that expire together in the order libevent listed them).
std::vector<PendingTimer> pendingTimers(event_base* base) {
    // Collected first and examined afterwards: the iteration holds the base's
    // lock and must not be mixed with other calls on the base.
    std::vector<event*> events;
    event_base_foreach_event(base, collectEvent, &events);
    std::vector<PendingTimer> timers;
    for (event* ev : events) {
        if (event_pending(ev, EV_TIMEOUT, nullptr) & EV_TIMEOUT) {
            timers.push_back({ev, expiryOf(ev)});
        }
    }
    std::stable_sort(timers.begin(), timers.end(),
                     [](const PendingTimer& a, const PendingTimer& b) {
                         return timercmp(&a.expiry, &b.expiry, <);
                     });
    return timers;
}

bool sameTime(const timeval& a, const timeval& b) {
    return a.tv_sec == b.tv_sec && a.tv_usec == b.tv_usec;
}

// Re-adds `ev` so that it expires at the absolute `target`, which may lie in
// the past (libevent then runs it on its next pass, in expiry order with the
// others). `now` is the caller's latest reading of the base's clock and is
// updated from what the add reveals.
void readdAt(event* ev, const timeval& target, timeval& now) {
    bool persistentInterval = (ev->ev_events & EV_PERSIST) && !(ev->ev_events & EV_SIGNAL);
    // event_add takes a persistent event's delay as its new period; the
    // period must survive the shift.
    timeval period = ev->ev_.ev_io.ev_timeout;
    for (int attempt = 0; attempt < maxReaddAttempts; ++attempt) {
        timeval relative;
        timersub(&target, &now, &relative);
        event_add(ev, &relative);
        timeval landed = expiryOf(ev);
        timersub(&landed, &relative, &now);
        if (sameTime(landed, target)) {
            break;
        }
    }
    if (persistentInterval) {
        ev->ev_.ev_io.ev_timeout = period;
    }
}

}  // namespace

namespace Velik::Impl {

timeval leEventExpiry(const event* ev) {
    return expiryOf(ev);
}

timeval leBaseNow(event_base* base) {
    event probe;
    event_assign(&probe, base, -1, 0, nullptr, nullptr);
    timeval zero{0, 0};
    event_add(&probe, &zero);
    timeval now = expiryOf(&probe);
    event_del(&probe);
    return now;
}

}  // namespace Velik::Impl

extern "C" {

int event_base_get_first_timeout(struct event_base* base, struct timeval* out) {
    std::vector<PendingTimer> timers = pendingTimers(base);
    if (timers.empty()) {
        return -1;
    }
    *out = timers.front().expiry;
    return 0;
}

int event_base_timeout_subtract_offset(struct event_base* base, const struct timeval* delta) {
    std::vector<PendingTimer> timers = pendingTimers(base);
    if (timers.empty()) {
        return 0;
    }
    // Each event goes to its exact new expiry, so equal expiries stay equal
    // and the queue's order is kept whatever order the adds happen in;
    // earliest first keeps it even should the clock step mid-way.
    timeval now = Velik::Impl::leBaseNow(base);
    for (PendingTimer& timer : timers) {
        timeval target;
        timersub(&timer.expiry, delta, &target);
        readdAt(timer.ev, target, now);
    }
    return 0;
}

}  // extern "C"
