// The processor tick counter.
//
// `ticks()` is a very cheap, monotonically increasing counter for measuring
// short stretches of processor time; `ticksPer500Microseconds()` says roughly
// how far it advances in 500 microseconds. Code that must check a clock often
// (a task asking whether its quantum is used up) compares tick counts and
// reads a real clock only once the counter has moved that far.
#pragma once

#include <chrono>
#include <cstdint>

namespace Kiv {

namespace Impl {
// Measures the counter against the steady clock (a spin of about a
// millisecond). Called once per process, on first use.
std::uint64_t calibrateTicksPer500Microseconds();
}  // namespace Impl

// The processor tick counter: the time-stamp counter on x86-64 (constant rate
// on every processor this framework supports), steady-clock nanoseconds
// elsewhere. Values from different threads are comparable; the counter may be
// read from any thread.
inline std::uint64_t ticks() noexcept {
#if defined(__x86_64__)
    return __builtin_ia32_rdtsc();
#else
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
#endif
}

// Approximately how many `ticks()` pass in 500 microseconds; never 0. Measured
// once, lazily, on the first call (about a millisecond); later calls only read
// the stored value. Thread-safe.
inline std::uint64_t ticksPer500Microseconds() {
    static const std::uint64_t count = Impl::calibrateTicksPer500Microseconds();
    return count;
}

}  // namespace Kiv
