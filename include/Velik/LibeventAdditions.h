// Two operations on an event base that libevent does not offer, written over
// its public interface: finding the first pending timer and moving every
// pending timer earlier. Fast-forward (Velik/FastForward.h) rests on them.
//
// Both see every event of the base with a pending time-out: pure timers,
// descriptor and signal events with time-outs, persistent or not. Times are
// in the base's internal clock, the one `event_add` stamps expiries with.
#pragma once

#include <event2/event.h>

#include <sys/time.h>

extern "C" {

// Writes the absolute expiry of the base's earliest pending timer into `*out`
// and returns 0; returns -1 and leaves `*out` alone when the base has no
// pending timer.
int event_base_get_first_timeout(struct event_base* base, struct timeval* out);

// Moves the expiry of every pending timer of the base `*delta` earlier, so
// that each fires `*delta` sooner. The timers keep their order: timers that
// expired together still do, and timers pulled into the past become due in
// their old order. A persistent event keeps its period. Returns 0.
int event_base_timeout_subtract_offset(struct event_base* base, const struct timeval* delta);

}  // extern "C"

namespace Velik::Impl {

// The base's "now" in its internal clock, as `event_add` would stamp it.
timeval leBaseNow(event_base* base);

// The monotonic expiry of an event with a pending time-out, on the same clock
// as `leBaseNow` (libevent's own time base, not wall-clock time).
timeval leEventExpiry(const event* ev);

}  // namespace Velik::Impl
