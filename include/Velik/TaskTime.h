// Time as the task scheduler measures it.
//
// Run times, latencies and quanta are signed 64-bit nanosecond counts
// (`TaskTimeDuration`); time points are nanoseconds on the monotonic steady
// clock, counted from boot (`TaskTimePoint`). Where an interface speaks of
// `Time` it means double seconds on the library clock `Velik::time()`.
#pragma once

#include <Kiv/SteadyClock.h>

#include <chrono>
#include <cstdint>

namespace Velik {

using TaskTimeDuration = std::chrono::nanoseconds;
using TaskTimePoint = std::chrono::time_point<std::chrono::steady_clock, TaskTimeDuration>;

namespace Impl {

// The test clock in force, if any (see `taskSteadyClockForTestIs`).
extern TaskTimePoint (*taskSteadyTestClock)();

// Replaces the scheduler's steady clock with `now` (null restores the real
// clock), so tests can make runs take exactly as long as they need.
void taskSteadyClockForTestIs(TaskTimePoint (*now)());

}  // namespace Impl

// Now on the steady clock, as the scheduler reads it: the framework's
// `Kiv::steadyNanoseconds()`, a few nanoseconds where the processor's
// time-stamp counter is invariant. Inline: a task run reads it twice.
inline TaskTimePoint taskSteadyNow() {
    if (Impl::taskSteadyTestClock) [[unlikely]] {
        return Impl::taskSteadyTestClock();
    }
    return TaskTimePoint(TaskTimeDuration(Kiv::steadyNanoseconds()));
}

}  // namespace Velik
