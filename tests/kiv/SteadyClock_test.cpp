#include "Kiv/SteadyClock.h"

#include <time.h>

#include <gtest/gtest.h>

namespace {

std::int64_t monotonicNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

// Readings never step back, also across re-measurements of the counter's
// scale, and stay on the scale of CLOCK_MONOTONIC (nanoseconds since boot).
TEST(SteadyClockTest, NeverStepsBackAcrossRemeasurementsAndTracksMonotonic) {
    std::int64_t last = Kiv::steadyNanoseconds();
    for (int round = 0; round < 200; ++round) {
        for (int i = 0; i < 50; ++i) {
            const std::int64_t now = Kiv::steadyNanoseconds();
            ASSERT_GE(now, last) << "round " << round;
            last = now;
        }
        Kiv::Impl::steadyClockRemeasureForTest();
    }
    const std::int64_t before = monotonicNs();
    const std::int64_t reading = Kiv::steadyNanoseconds();
    const std::int64_t after = monotonicNs();
    // Generous: a preempted thread may be descheduled between the reads.
    EXPECT_GT(reading, before - 1'000'000);
    EXPECT_LT(reading, after + 1'000'000);
}

}  // namespace
