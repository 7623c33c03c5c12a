// Time as the task scheduler measures it.
//
// Run times, latencies and quanta are signed 64-bit nanosecond counts
// (`TaskTimeDuration`); time points are nanoseconds on the monotonic steady
// clock, counted from boot (`TaskTimePoint`). Where an interface speaks of
// `Time` it means double seconds on the library clock `Velik::time()`.
#pragma once

#include <chrono>
#include <cstdint>

namespace Velik {

using TaskTimeDuration = std::chrono::nanoseconds;
using TaskTimePoint = std::chrono::time_point<std::chrono::steady_clock, TaskTimeDuration>;

// Now on the steady clock, as the scheduler reads it: the framework's
// `Kiv::steadyNanoseconds()`, a few nanoseconds where the processor's
// time-stamp counter is invariant.
TaskTimePoint taskSteadyNow();

namespace Impl {

// Replaces the scheduler's steady clock with `now` (null restores the real
// clock), so tests can make runs take exactly as long as they need.
void taskSteadyClockForTestIs(TaskTimePoint (*now)());

}  // namespace Impl
}  // namespace Velik
