// The kinds of event a scheduler records in its history.
//
// Values 0 to 16 are task events, recorded with the task's display name;
// 17 to 25 are scheduler events, recorded with the scheduler's name.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <ostream>

namespace Velik {

enum class TaskSchedulerEventType : std::uint8_t {
    schedule = 0,      // scheduleTask queued the task
    unschedule = 1,    // the task left its run queue without running
    runStart = 2,      // taskDoRun begins
    runEnd = 3,        // taskDoRun ends
    timerStart = 4,    // timer task armed
    timerStop = 5,     // timer task disarmed
    suspendOn = 6,     // task suspended
    suspendOff = 7,    // task unsuspended
    scheduleSus = 8,   // scheduleTask on a suspended task
    frcYieldOn = 9,    // task test yield ratio set non-zero
    frcYieldOff = 10,  // task test yield ratio set to zero
    idle = 11,         // task became idle
    busy = 12,         // task became busy
    create = 13,       // task registered
    del = 14,          // task unregistered ("delete")
    fdReadable = 15,
    fdWritable = 16,
    schedulerIdle = 17,  // scheduler found nothing to run
    schedulerRunnable = 18,
    schedulerSuspended = 19,
    schedulerUnsuspended = 20,
    schedulerRunIgnoredWhileSuspended = 21,
    schedulerVirtualTimeOn = 22,
    schedulerVirtualTimeOff = 23,
    schedulerTestYieldRatioOn = 24,
    schedulerTestYieldRatioOff = 25,
};

inline constexpr TaskSchedulerEventType lastTaskEventType = TaskSchedulerEventType::fdWritable;
inline constexpr TaskSchedulerEventType lastSchedulerEventType =
    TaskSchedulerEventType::schedulerTestYieldRatioOff;

// The display name ("schedule", "run start", ...). Any value beyond 25 asserts
// with "unexpected eventType ".
const char* eventTypeDisplay(TaskSchedulerEventType eventType);

// Prints the display name.
std::ostream& operator<<(std::ostream& stream, TaskSchedulerEventType eventType);

}  // namespace Velik

template <>
struct fmt::formatter<Velik::TaskSchedulerEventType> : fmt::formatter<fmt::string_view> {
    template <typename Context>
    auto format(Velik::TaskSchedulerEventType eventType, Context& context) const {
        return fmt::formatter<fmt::string_view>::format(Velik::eventTypeDisplay(eventType),
                                                        context);
    }
};
