// What the clock, loop and descriptor tests share: a timer running an action
// and a fixture that runs the process loop under virtual time.
#pragma once

#include <gtest/gtest.h>

#include "Kiv/ActivityManager.h"
#include "Kiv/System.h"

namespace KivTest {

inline constexpr double kNever = std::numeric_limits<double>::infinity();

inline const auto config = [] { return Kiv::activityManager()->config(); };
inline const auto now = [] { return Kiv::System::currentTime(); };

struct Timer : Kiv::Clock::Notifiee {
    explicit Timer(std::function<void()> act = [] {})
        : Notifiee(config()->clock()), action(std::move(act)) {}
    void onTime() override {
        ++deliveries;
        action();
    }
    std::function<void()> action;
    int deliveries = 0;
};

// Every test leaves the process loop as it found it: real time, no run limit,
// nothing armed and nothing watched (a leak here would stall later tests).
struct LoopTest : ::testing::Test {
    void SetUp() override { config()->virtualTimeIs(true); }
    void TearDown() override {
        config()->virtualTimeIs(false);
        config()->executionTimeIs(kNever);
        EXPECT_EQ(std::pair(Kiv::activityManager()->clock()->armedCount(),
                            Kiv::activityManager()->mainLoop()->watchedCount()),
                  std::pair(0ul, 0ul));
    }
};

}  // namespace KivTest
