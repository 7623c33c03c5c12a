#include "Velik/TaskTime.h"

namespace Velik::Impl {

TaskTimePoint (*taskSteadyTestClock)() = nullptr;

void taskSteadyClockForTestIs(TaskTimePoint (*now)()) {
    taskSteadyTestClock = now;
}

}  // namespace Velik::Impl
