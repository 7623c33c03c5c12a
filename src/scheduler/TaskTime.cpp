#include "Velik/TaskTime.h"

#include "Kiv/SteadyClock.h"

namespace Velik {

namespace {

TaskTimePoint (*testClock)() = nullptr;

}  // namespace

TaskTimePoint taskSteadyNow() {
    if (testClock) [[unlikely]] {
        return testClock();
    }
    return TaskTimePoint(TaskTimeDuration(Kiv::steadyNanoseconds()));
}

namespace Impl {

void taskSteadyClockForTestIs(TaskTimePoint (*now)()) {
    testClock = now;
}

}  // namespace Impl
}  // namespace Velik
