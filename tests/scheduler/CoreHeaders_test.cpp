// The scheduling core's headers stand below the statistics and the reports:
// including every one of them leaves those types declared at most, so that a
// core header including one of theirs (an upward include) fails here.
#include <Velik/FileDescriptorTask.h>
#include <Velik/Task.h>
#include <Velik/TaskGroup.h>
#include <Velik/TaskRunQueue.h>
#include <Velik/TaskScheduler.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/TimerTask.h>

namespace {

// Only sound in a file that never completes these types.
template <typename T>
constexpr bool isComplete = requires {
    sizeof(T);
};

// The history is held by pointer only, so not brought in either.
static_assert(!isComplete<Velik::TaskStat> && !isComplete<Velik::TaskSchedulerQueueStats> &&
              !isComplete<Velik::TaskSchedulerSnapshot> &&
              !isComplete<Velik::TaskSchedulerPrintContext> &&
              !isComplete<Velik::SnapshotRenderJsonTask> &&
              !isComplete<Velik::TaskSchedulerHistory>);

}  // namespace
