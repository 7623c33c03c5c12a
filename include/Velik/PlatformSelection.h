// The platform factories and loop entry points: one set of calls that serves
// whichever event platform the calling thread runs.
//
// A thread that uses thread-local singletons (`useThreadLocalSingletons()`,
// Velik/Thread.h) runs the libevent platform (Velik/LibeventFactory.h); every
// other thread runs the host framework's (Velik/KivPlatform.h), the default.
// Each function below asks `hasThreadLocalSingletons()` and forwards:
//
//   auto callback = Velik::Platform::getCallbackControl(&handler);
//   callback->requestCallback();
//   Velik::Platform::doEventLoop(10.0);   // ten seconds of platform time
//
// Controls belong to the thread that made them and must be used, and
// destroyed, there.
#pragma once

#include <Velik/EventPriority.h>
#include <Velik/FastForward.h>
#include <Velik/Platform.h>

#include <memory>

namespace Velik::Platform {

// An fd control for `handler`: a `LibeventFdControl`, or a
// `KivVelik::FileDescriptor` on a new framework descriptor object named
// "PlatformFd".
std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler);

// A timer control for `handler`: a `LibeventTimerControl` at `priority`
// (`eventPriorityDefault` in the first form), or a `KivVelik::ClockTimer` on
// the framework clock, which has no priorities and ignores `priority`.
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler);
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler, EventPriority priority);

// A callback control for `handler`: a `LibeventCallbackControl`, or a
// `KivVelik::Callback` on the framework clock.
std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler);

// Runs the thread's loop until it has no work left (`doLeEventLoop()`, or
// `Kiv::System::doRun()`). On the framework the execution time set by an
// earlier `doEventLoop(seconds)` still limits the run.
void doEventLoop();

// Runs the loop for `seconds` of platform time (virtual under fast-forward).
// On the framework this sets the activity manager's execution time to
// `seconds`, where it stays for later runs, then runs `Kiv::System::doRun()`.
void doEventLoop(double seconds);

// Runs the loop for at most `maxTimeout` seconds, for a caller waiting for a
// condition: `doLeEventLoopInWaitfor`, or `doEventLoop(maxTimeout)`.
void doEventLoopInWaitfor(double maxTimeout);

// Makes the loop running on this thread (`doEventLoop()`,
// `doEventLoop(seconds)`, `doEventLoopInWaitfor`) return after the current
// callback (a task run, a handler), under fast-forward and virtual time too.
// Nothing is lost: armed timers, watched descriptors, pending callbacks and
// scheduled tasks stay, and the next run carries on with them. A stop inside
// a nested run ends every run around it as well.
//
// When no loop runs on the thread the request is ignored: the next run is
// not affected. A stop therefore cannot be "banked" for a loop not yet
// running; ask from inside it (a task, a handler).
//
// The loop's thread only. From another thread, post it as work to that
// thread's root: `Velik::stopEventLoop(inbox)` (Velik/Inbox.h).
void stopEventLoop();

// Whether a loop entry point is running on this thread.
bool eventLoopRunning();

// The framework's virtual-time setting. Framework platform only: with
// thread-local singletons it is an assertion failure ("ThreadLocal
// fastForward invoked from non-main thread"); use `leFastForward()` there.
bool fastForward();

// Switches the framework's virtual time; a real change then calls every
// registered fast-forward change notifier once. Framework platform only, as
// `fastForward()`; use `setLeFastForward()` with thread-local singletons.
void setFastForward(bool enabled);

// Adds `notifier` to the fast-forward change notifiers, the set shared with
// `leRegisterFastForwardChangeNotifier`; a second registration is ignored.
void registerFastForwardChangeNotifier(FastForwardChangeNotifier notifier);

// Whether this is a release build of the library: false, always.
bool releaseMode();

}  // namespace Velik::Platform
