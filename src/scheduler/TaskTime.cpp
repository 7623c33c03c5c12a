#include "Velik/TaskTime.h"

namespace Velik {

namespace {

TaskTimePoint (*testClock)() = nullptr;

}  // namespace

TaskTimePoint taskSteadyNow() {
    if (testClock) [[unlikely]] {
        return testClock();
    }
    return std::chrono::time_point_cast<TaskTimeDuration>(std::chrono::steady_clock::now());
}

namespace Impl {

void taskSteadyClockForTestIs(TaskTimePoint (*now)()) {
    testClock = now;
}

}  // namespace Impl
}  // namespace Velik
