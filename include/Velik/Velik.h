// What an application uses of libKivVelik, in one include: tasks of every
// kind, groups, schedulers and the root, the platform's controls, factories
// and event loop, time, statistics, reports, the stats and metrics
// endpoints, and the foundation, diagnostics and utilities beneath them.
//
// The backends and the data structures underneath are installed too, and
// each of their headers stands on its own, but they are not included here:
// include them by name where they are needed.
//
//   Velik/LibeventFactory.h     the libevent platform and its loop
//   Velik/LibeventAdditions.h   the two calls libevent lacks
//   Velik/KivPlatform.h         the framework-backed platform
//   Velik/KivDebug.h            the framework-backed trace handler
//   Velik/KivActivityLock.h     the framework-backed platform lock
//   Velik/Timeouts.h            the timing-wheel library under TimerWheel
//   Velik/TaskRunQueue.h        a scheduler's per-priority run queue
//   Velik/IntrusiveLinkedListBase.h, Velik/IntrusiveBookmarkLinkedList.h
//                               the intrusive lists tasks are linked on
//   Velik/TaskSchedulerPrintContext.h  the report renderers' print context
//
// So a file that includes only this header sees no libevent header, none of
// the timing-wheel library's macros, and of Boost only the intrusive hooks
// and lists and the circular buffer that public classes hold by value.
#pragma once

#include <Velik/Assert.h>
#include <Velik/Backtrace.h>
#include <Velik/BacktraceTracker.h>
#include <Velik/ConstStringCache.h>
#include <Velik/CoroutineAllocator.h>
#include <Velik/CoroutineTask.h>
#include <Velik/Counters.h>
#include <Velik/Debug.h>
#include <Velik/DirNode.h>
#include <Velik/Errno.h>
#include <Velik/EventPriority.h>
#include <Velik/Exception.h>
#include <Velik/FastForward.h>
#include <Velik/FdToStream.h>
#include <Velik/FileDescriptorTask.h>
#include <Velik/FileLock.h>
#include <Velik/FmtUtil.h>
#include <Velik/Fmtrace.h>
#include <Velik/ForkHandler.h>
#include <Velik/HashMix.h>
#include <Velik/Inbox.h>
#include <Velik/LambdaTask.h>
#include <Velik/LatencyHistogram.h>
#include <Velik/Locking.h>
#include <Velik/Loco.h>
#include <Velik/Mappings.h>
#include <Velik/MetricsEndpoint.h>
#include <Velik/PeriodicTimerTask.h>
#include <Velik/Platform.h>
#include <Velik/PlatformSelection.h>
#include <Velik/Plugin.h>
#include <Velik/PrometheusExposition.h>
#include <Velik/Random.h>
#include <Velik/RunHistograms.h>
#include <Velik/SignalTask.h>
#include <Velik/SnapshotRenderJson.h>
#include <Velik/StallSentinel.h>
#include <Velik/StatsEndpoint.h>
#include <Velik/Task.h>
#include <Velik/TaskControl.h>
#include <Velik/TaskGroup.h>
#include <Velik/TaskMaybeU32.h>
#include <Velik/TaskPriority.h>
#include <Velik/TaskScheduler.h>
#include <Velik/TaskSchedulerEventType.h>
#include <Velik/TaskSchedulerHistory.h>
#include <Velik/TaskSchedulerQueueStats.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/TaskSchedulerSnapshot.h>
#include <Velik/TaskSchedulerTextReport.h>
#include <Velik/TaskStat.h>
#include <Velik/TaskStatus.h>
#include <Velik/TaskTime.h>
#include <Velik/Thread.h>
#include <Velik/Time.h>
#include <Velik/TimerTask.h>
#include <Velik/TimerWheel.h>
#include <Velik/TypeName.h>
#include <Velik/Util.h>
