#include "Velik/TaskSchedulerEventType.h"

#include "Velik/Assert.h"

#include <array>

namespace Velik {

namespace {

constexpr std::array<const char*, 26> displayNames = {
    "schedule",
    "unschedule",
    "run start",
    "run end",
    "timerStart",
    "timerStop",
    "suspendOn",
    "suspendOff",
    "scheduleSus",
    "frcYieldOn",
    "frcYieldOff",
    "idle",
    "busy",
    "create",
    "delete",
    "fdReadable",
    "fdWritable",
    "schedulerIdle",
    "schedulerRunnable",
    "schedulerSuspended",
    "schedulerUnsuspended",
    "schedulerRunIgnoredWhileSuspended",
    "schedulerVirtualTimeOn",
    "schedulerVirtualTimeOff",
    "schedulerTestYieldRatioOn",
    "schedulerTestYieldRatioOff",
};

}  // namespace

const char* eventTypeDisplay(TaskSchedulerEventType eventType) {
    auto index = static_cast<unsigned>(eventType);
    VELIK_ASSERT(index < displayNames.size(), "unexpected eventType {}", index);
    return displayNames[index];
}

std::ostream& operator<<(std::ostream& stream, TaskSchedulerEventType eventType) {
    return stream << eventTypeDisplay(eventType);
}

}  // namespace Velik
