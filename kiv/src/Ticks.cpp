#include "Kiv/Ticks.h"

namespace Kiv::Impl {

std::uint64_t calibrateTicksPer500Microseconds() {
#if defined(__x86_64__)
    // Long enough that clock-reading overhead is well under one percent of the
    // interval, short enough not to be noticed at start-up.
    constexpr auto spin = std::chrono::microseconds(1000);
    using Clock = std::chrono::steady_clock;
    const auto startTime = Clock::now();
    const std::uint64_t startTicks = ticks();
    auto now = startTime;
    while (now - startTime < spin) {
        now = Clock::now();
    }
    const std::uint64_t elapsedTicks = ticks() - startTicks;
    const double seconds = std::chrono::duration<double>(now - startTime).count();
    const auto count =
        static_cast<std::uint64_t>(static_cast<double>(elapsedTicks) * 500e-6 / seconds);
    return count > 0 ? count : 1;
#else
    return 500'000;  // ticks() counts nanoseconds
#endif
}

}  // namespace Kiv::Impl
