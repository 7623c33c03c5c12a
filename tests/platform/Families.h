// The two platform families a contract test runs on: the framework (on the
// main test thread, under the framework's virtual time) and libevent (on a
// thread with thread-local singletons, under libevent fast-forward).
#pragma once

#include "platform/LoopThread.h"

#include <Velik/FastForward.h>
#include <Velik/PlatformSelection.h>

#include <Kiv/ActivityManager.h>

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>

namespace VelikTest {

enum class Family { framework, libevent };

inline std::string familyName(const testing::TestParamInfo<Family>& info) {
    return info.param == Family::framework ? "Framework" : "Libevent";
}

// Runs `body` where the family's loop lives.
inline void onFamily(Family family, const std::function<void()>& body) {
    family == Family::libevent ? onLoopThread(body) : body();
}

// Switches the family's virtual time; only the main thread may. Switching
// off also lifts the run limit a framework `doEventLoop(seconds)` leaves.
inline void virtualTimeIs(Family family, bool on) {
    if (family == Family::libevent) {
        Velik::setLeFastForward(on);
        return;
    }
    Velik::Platform::setFastForward(on);
    if (!on) {
        Kiv::activityManager()->config()->executionTimeIs(std::numeric_limits<double>::infinity());
    }
}

// A fixture for tests of both families under virtual time.
class FamilyTest : public testing::TestWithParam<Family> {
  protected:
    void SetUp() override { virtualTimeIs(GetParam(), true); }
    void TearDown() override { virtualTimeIs(GetParam(), false); }
    void run(const std::function<void()>& body) { onFamily(GetParam(), body); }
};

}  // namespace VelikTest
