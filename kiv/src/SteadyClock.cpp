#include "Kiv/SteadyClock.h"

#include <time.h>

#if defined(__x86_64__)
#include <cpuid.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace Kiv {

namespace Impl {

SteadyClockScale steadyClockScale;

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
// How often the scale is re-measured, and how long the first measurement
// spins: long enough that the reads' own cost is noise.
constexpr std::int64_t remeasurePeriodNs = nanosecondsPerSecond;
constexpr std::int64_t firstSpinNs = 1'000'000;
// A counter that lags `CLOCK_MONOTONIC` by more than this is moved forward at
// once; smaller differences are absorbed by bending the slope, at most by
// `maxSlew` of the rate.
constexpr std::int64_t jumpThresholdNs = 1'000'000;
constexpr double maxSlew = 1e-3;

std::int64_t monotonicNs() noexcept {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * nanosecondsPerSecond + ts.tv_nsec;
}

// The kernel stops using the counter as its clock source when it finds it
// unstable or unsynchronised between processors; so do we. Where the file
// cannot be read the processor's word is taken.
bool kernelTrustsCounter() noexcept {
    std::FILE* file =
        std::fopen("/sys/devices/system/clocksource/clocksource0/current_clocksource", "re");
    if (file == nullptr) {
        return true;
    }
    char name[32] = {};
    const bool read = std::fgets(name, sizeof name, file) != nullptr;
    std::fclose(file);
    return !read || std::strncmp(name, "tsc", 3) == 0;
}

bool counterInvariant() noexcept {
#if defined(__x86_64__)
    if (!kernelTrustsCounter()) {
        return false;
    }
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (__get_cpuid(0x80000000, &eax, &ebx, &ecx, &edx) == 0 || eax < 0x80000007) {
        return false;
    }
    __get_cpuid(0x80000007, &eax, &ebx, &ecx, &edx);
    return (edx & (1u << 8)) != 0;  // invariant TSC
#else
    return false;
#endif
}

// A counter value and the `CLOCK_MONOTONIC` reading taken at that instant:
// the counter read on both sides of the clock read, midpoint kept.
struct Pair {
    std::uint64_t ticks;
    std::int64_t ns;
};

// The tightest of a few tries: a thread preempted between the reads would
// otherwise pair the clock with a counter value milliseconds away, and a bad
// origin skews the rate for minutes.
Pair readPair() noexcept {
    constexpr int tries = 8;
    Pair best{0, 0};
    std::uint64_t bestWindow = ~std::uint64_t{0};
    for (int i = 0; i < tries; ++i) {
        const std::uint64_t before = steadyClockTicks();
        const std::int64_t ns = monotonicNs();
        const std::uint64_t after = steadyClockTicks();
        if (after - before < bestWindow) {
            bestWindow = after - before;
            best = Pair{before + (after - before) / 2, ns};
        }
    }
    return best;
}

// The first pair ever measured: the long baseline the rate is measured over.
Pair origin{0, 0};
// What the first measurement found.
enum class Source { unmeasured, counter, monotonic };
std::atomic<Source> source{Source::unmeasured};
std::mutex remeasureMutex;

std::int64_t scaled(const SteadyClockScale& scale, std::uint64_t ticks) noexcept {
    const auto delta = static_cast<std::int64_t>(ticks - scale.baseTicks.load());
    const auto product =
        static_cast<__int128>(delta) * static_cast<__int128>(scale.nanosecondsPerTick32.load());
    return scale.baseNanoseconds.load() + static_cast<std::int64_t>(product >> 32);
}

void publish(std::uint64_t baseTicks, std::int64_t baseNs, double nsPerTick,
             std::uint64_t remeasureTicks) noexcept {
    SteadyClockScale& scale = steadyClockScale;
    const std::uint32_t sequence = scale.sequence.load(std::memory_order_relaxed);
    scale.sequence.store(sequence + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    scale.baseTicks.store(baseTicks, std::memory_order_relaxed);
    scale.baseNanoseconds.store(baseNs, std::memory_order_relaxed);
    scale.nanosecondsPerTick32.store(static_cast<std::uint64_t>(std::llround(nsPerTick * 0x1p32)),
                                     std::memory_order_relaxed);
    scale.remeasureTicks.store(remeasureTicks, std::memory_order_relaxed);
    scale.sequence.store(sequence + 2, std::memory_order_release);
}

void measureFirst() noexcept {
    if (!counterInvariant()) {
        publish(0, 0, 0.0, 0);  // every read stays on the slow path
        source.store(Source::monotonic);
        return;
    }
    origin = readPair();
    Pair end = readPair();
    while (end.ns - origin.ns < firstSpinNs) {
        end = readPair();
    }
    const double nsPerTick =
        static_cast<double>(end.ns - origin.ns) / static_cast<double>(end.ticks - origin.ticks);
    const auto period = static_cast<std::uint64_t>(remeasurePeriodNs / nsPerTick);
    source.store(Source::counter);
    publish(end.ticks, end.ns, nsPerTick, end.ticks + period);
}

// A fresh reading on the published scale, due or not.
std::int64_t readScaled() noexcept {
    const SteadyClockScale& scale = steadyClockScale;
    for (;;) {
        const std::uint32_t sequence = scale.sequence.load(std::memory_order_acquire);
        if ((sequence & 1) != 0) {
            continue;
        }
        const std::int64_t ns = scaled(scale, steadyClockTicks());
        if (scale.sequence.load(std::memory_order_acquire) == sequence) {
            return ns;
        }
    }
}

// Called with the mutex held, the scale already measured once.
void remeasure() noexcept {
    const SteadyClockScale& scale = steadyClockScale;
    const Pair now = readPair();
    // The old scale's value now is where the new one starts: no step back.
    std::int64_t start = scaled(scale, now.ticks);
    const double rate =
        static_cast<double>(now.ns - origin.ns) / static_cast<double>(now.ticks - origin.ticks);
    const auto period = static_cast<std::uint64_t>(remeasurePeriodNs / rate);
    const std::int64_t lag = now.ns - start;
    double nsPerTick = rate;
    if (lag > jumpThresholdNs) {
        start = now.ns;  // forward only
    } else {
        // Close the gap over the next period, within the slew limit.
        const double correction = static_cast<double>(lag) / static_cast<double>(period);
        nsPerTick = rate + std::clamp(correction, -maxSlew * rate, maxSlew * rate);
    }
    publish(now.ticks, start, nsPerTick, now.ticks + period);
}

}  // namespace

std::int64_t steadyNanosecondsSlow(std::uint64_t ticks) noexcept {
    if (source.load() == Source::monotonic) {
        return monotonicNs();
    }
    {
        // Whoever comes first measures; the others read the published scale
        // meanwhile, except before the first measurement, which they await.
        std::unique_lock lock(remeasureMutex, std::defer_lock);
        if (source.load() == Source::unmeasured) {
            lock.lock();
        } else {
            lock.try_lock();
        }
        if (lock.owns_lock()) {
            if (source.load() == Source::unmeasured) {
                measureFirst();
            } else if (source.load() == Source::counter &&
                       ticks >= steadyClockScale.remeasureTicks.load()) {
                remeasure();
            }
        }
    }
    return source.load() == Source::counter ? readScaled() : monotonicNs();
}

void steadyClockRemeasureForTest() noexcept {
    steadyNanoseconds();  // measured once at least
    std::lock_guard lock(remeasureMutex);
    if (source.load() == Source::counter) {
        remeasure();
    }
}

bool steadyClockUsesTicks() noexcept {
    steadyNanoseconds();
    return source.load() == Source::counter;
}

}  // namespace Impl
}  // namespace Kiv
