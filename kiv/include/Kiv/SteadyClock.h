// The framework's steady clock: nanoseconds since boot on the scale of
// `CLOCK_MONOTONIC`, cheap enough to read several times per task run.
//
// Where the processor's time-stamp counter is invariant (constant rate, not
// stopped in sleep states) and the kernel still keeps time by it (clock
// source `tsc`), the clock is the counter scaled to nanoseconds. The
// scale is measured against `CLOCK_MONOTONIC` on first use and re-measured
// about once a second by whichever reader comes first; every re-measurement
// starts from the value the old scale gives at that instant and only bends
// the slope (a forward jump when the counter lags by more than a
// millisecond), so the clock never goes backwards and stays within a few
// microseconds of `CLOCK_MONOTONIC`. Elsewhere every read is a
// `clock_gettime(CLOCK_MONOTONIC)`.
//
//   std::int64_t start = Kiv::steadyNanoseconds();
//   work();
//   std::int64_t took = Kiv::steadyNanoseconds() - start;
//
// Thread-safe; readings of one thread never decrease.
#pragma once

#include <atomic>
#include <cstdint>

namespace Kiv {

namespace Impl {

// The counter's scale. Published under a sequence count: odd while a
// re-measurement writes it.
struct SteadyClockScale {
    std::atomic<std::uint32_t> sequence{0};
    // Counter value and nanoseconds of the scale's origin.
    std::atomic<std::uint64_t> baseTicks{0};
    std::atomic<std::int64_t> baseNanoseconds{0};
    // Nanoseconds per tick times 2^32.
    std::atomic<std::uint64_t> nanosecondsPerTick32{0};
    // The counter value after which the scale is re-measured; 0 until the
    // first measurement, and for ever where the counter is not usable, so
    // that such reads all take the slow path.
    std::atomic<std::uint64_t> remeasureTicks{0};
};

extern SteadyClockScale steadyClockScale;

// The slow path: measures the scale when due (or for the first time) and
// reads the clock; `CLOCK_MONOTONIC` itself where the counter is not usable.
std::int64_t steadyNanosecondsSlow(std::uint64_t ticks) noexcept;

// Re-measures the scale now, as if it were due. For tests.
void steadyClockRemeasureForTest() noexcept;

// Whether the clock runs on the time-stamp counter.
bool steadyClockUsesTicks() noexcept;

inline std::uint64_t steadyClockTicks() noexcept {
#if defined(__x86_64__)
    return __builtin_ia32_rdtsc();
#else
    return 0;
#endif
}

}  // namespace Impl

// Now, in nanoseconds since boot.
inline std::int64_t steadyNanoseconds() noexcept {
    Impl::SteadyClockScale& scale = Impl::steadyClockScale;
    for (;;) {
        const std::uint32_t sequence = scale.sequence.load(std::memory_order_acquire);
        const std::uint64_t baseTicks = scale.baseTicks.load(std::memory_order_relaxed);
        const std::int64_t baseNs = scale.baseNanoseconds.load(std::memory_order_relaxed);
        const std::uint64_t perTick = scale.nanosecondsPerTick32.load(std::memory_order_relaxed);
        const std::uint64_t remeasure = scale.remeasureTicks.load(std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_acquire);
        if ((sequence & 1) != 0 || scale.sequence.load(std::memory_order_relaxed) != sequence) {
            continue;  // a re-measurement is publishing
        }
        const std::uint64_t ticks = Impl::steadyClockTicks();
        if (ticks >= remeasure) [[unlikely]] {
            return Impl::steadyNanosecondsSlow(ticks);
        }
        // A counter read slightly before the origin (another processor's
        // counter, or an early read) gives a slightly earlier time.
        const auto delta = static_cast<std::int64_t>(ticks - baseTicks);
        const auto scaled = static_cast<__int128>(delta) * static_cast<__int128>(perTick);
        return baseNs + static_cast<std::int64_t>(scaled >> 32);
    }
}

}  // namespace Kiv
