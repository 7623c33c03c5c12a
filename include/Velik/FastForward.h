// Virtual time for the libevent loop.
//
// With fast-forward on, the loop does not sleep until its next timer: it
// pulls every pending timer of the thread's base earlier by the idle gap and
// adds the same gap to the thread's virtual time offset, which `Velik::time()`
// includes. Timer-driven code then runs at full speed while every timer still
// sees the same relative times:
//
//   Velik::setLeFastForward(true);        // main thread only
//   timer->setTimeout(3600);
//   Velik::doLeEventLoop(7200);           // returns at once in wall time
//
// The offset only grows; it is never reset while the thread runs.
#pragma once

#include <sys/time.h>

#include <set>

namespace Velik {

// The fast-forward switch of the libevent platform, false at start.
// Process-wide and unlocked: only the main thread switches it.
extern bool fastForward;

using FastForwardChangeNotifier = void (*)();

// Switches fast-forward. Initialises the thread's base; asserts
// "FastForward invoked from non-main thread" off the main thread. A real
// change calls every registered notifier.
void setLeFastForward(bool enabled);

// The switch.
bool leFastForward();

// Adds `notifier` to the notifiers of fast-forward changes; registering the
// same function again is ignored.
void leRegisterFastForwardChangeNotifier(FastForwardChangeNotifier notifier);

// The registered notifiers.
std::set<FastForwardChangeNotifier>& fastForwardChangeNotifiers();

// The calling thread's virtual time offset in seconds (0 on a thread whose
// loop never fast-forwarded).
double leVirtualTimeOffset();

// Pulls every pending timer of the thread's base `*delta` earlier and adds
// `*delta` to the thread's offset.
void applyFastForwardDelta(const timeval* delta);

// The gap from the base's now to its first timer (plus a few microseconds,
// so that the timer is due after the jump) into `*delay`; zero when the first
// timer is already due. False, and `*delay` untouched, when the base has no
// timer. Asserts unless fast-forward is on.
bool fastForwardDelayToFirstTimer(timeval* delay);

// Jumps by `*delta` and runs one loop pass with everything that became due.
void eventLoopFastForward(const timeval* delta);

// One fast-forwarding pass: jumps to the first timer, but by no more than
// `maxTimeout` seconds (by exactly `maxTimeout` when there is no timer), and
// runs what became due. Asserts unless fast-forward is on.
void eventLoopFastForwardToFirstTimer(double maxTimeout);

namespace Platform {

// The platform-level form of `leRegisterFastForwardChangeNotifier`, sharing
// its notifier set.
void registerFastForwardChangeNotifier(FastForwardChangeNotifier notifier);

}  // namespace Platform
}  // namespace Velik
