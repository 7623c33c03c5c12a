#include "Kiv/Ticks.h"

#include <gtest/gtest.h>

namespace {

// Over 2 ms of steady-clock time the counter moves about four calibrated
// 500 us steps; preemption stretches both clocks alike.
TEST(TicksTest, CounterAdvancesAtTheCalibratedRate) {
    const std::uint64_t per500us = Kiv::ticksPer500Microseconds();
    const auto start = std::chrono::steady_clock::now();
    const std::uint64_t startTicks = Kiv::ticks();
    auto now = start;
    while (now - start < std::chrono::milliseconds(2)) {
        now = std::chrono::steady_clock::now();
    }
    const double steps = static_cast<double>(Kiv::ticks() - startTicks) / per500us;
    const double expected = std::chrono::duration<double>(now - start).count() / 500e-6;
    EXPECT_GT(steps, expected * 0.7);
    EXPECT_LT(steps, expected * 1.3);
}

}  // namespace
