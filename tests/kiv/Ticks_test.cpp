#include "Kiv/Ticks.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

TEST(TicksTest, CounterAdvancesAtTheCalibratedRate) {
    const std::uint64_t per500us = Kiv::ticksPer500Microseconds();
    ASSERT_GT(per500us, 0u);
    EXPECT_EQ(Kiv::ticksPer500Microseconds(), per500us);  // measured once

    // Over 2 ms of steady-clock time the counter moves about four 500 us
    // steps; preemption stretches both clocks alike.
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const std::uint64_t startTicks = Kiv::ticks();
    auto now = start;
    while (now - start < std::chrono::milliseconds(2)) {
        now = Clock::now();
    }
    const std::uint64_t ticks = Kiv::ticks() - startTicks;
    const double steps = static_cast<double>(ticks) / static_cast<double>(per500us);
    const double expected = std::chrono::duration<double>(now - start).count() / 500e-6;
    EXPECT_GT(steps, expected * 0.7);
    EXPECT_LT(steps, expected * 1.3);
}

}  // namespace
