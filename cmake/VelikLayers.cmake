# The library is built layer by layer. Each layer is an object library of its
# folders' sources; it sees its own headers and those of the layers it links,
# and nothing else, so an include that points up does not compile.
#
#   endpoint   the stats socket server, /metrics over HTTP  src/endpoint
#   sentinel   watches published runs for stalls            src/sentinel
#   report     snapshot, JSON, text report, Prometheus      src/report
#              exposition, writer
#   stats      task and scheduler statistics                src/stats
#   scheduler  tasks, schedulers, root, groups, history     src/scheduler
#   adapter    the framework platform, the platform lock,   src/adapter
#              the choice of platform per thread
#   platform   controls, libevent, virtual time, wheel      src/platform
#   util       file locks, directories                      src/util
#   foundation assertions, exceptions, trace, locks,        src/foundation
#              backtraces and the other diagnostics         src/diagnostics
#   Kiv        the host framework layer (its own library)   kiv/
#
# Diagnostics share the foundation's layer: exceptions carry backtraces, and
# backtraces take assertions and locks.
#
# A few interfaces are declared in a lower layer than the one that defines
# them, so that lower code can call them without seeing the layer above:
# `Velik::time()` (Time.h, defined by the platform, which owns virtual time),
# the plug-in registry (Plugin.h, defined by the platform under its lock),
# the platform lock `loco()` and the platform selection (defined by the
# adapter, which picks the framework or libevent family).
#
# Public headers (include/Velik) are staged per layer under the build tree;
# the installed headers are include/Velik as it is.

set(VELIK_LAYERS foundation util platform adapter scheduler stats report sentinel endpoint)

set(VELIK_LAYER_foundation_DIRS foundation diagnostics)
set(VELIK_LAYER_foundation_LINKS)
set(VELIK_LAYER_foundation_HEADERS
  Assert Backtrace BacktraceTracker Counters Debug Errno Exception FmtUtil Fmtrace HashMix
  Locking Mappings Plugin Random Thread Time TypeName)

set(VELIK_LAYER_util_DIRS util)
set(VELIK_LAYER_util_LINKS foundation)
set(VELIK_LAYER_util_HEADERS DirNode FileLock Util)

set(VELIK_LAYER_platform_DIRS platform)
set(VELIK_LAYER_platform_LINKS foundation)
set(VELIK_LAYER_platform_HEADERS
  EventPriority FastForward ForkHandler LibeventAdditions LibeventFactory Loco Platform
  PlatformSelection Timeouts TimerWheel)

set(VELIK_LAYER_adapter_DIRS adapter)
set(VELIK_LAYER_adapter_LINKS platform)
set(VELIK_LAYER_adapter_HEADERS KivActivityLock KivDebug KivPlatform)

set(VELIK_LAYER_scheduler_DIRS scheduler)
set(VELIK_LAYER_scheduler_LINKS platform)
set(VELIK_LAYER_scheduler_HEADERS
  ConstStringCache CoroutineAllocator CoroutineTask FileDescriptorTask Inbox
  IntrusiveBookmarkLinkedList IntrusiveLinkedListBase LambdaTask PeriodicTimerTask RunPublication
  SignalTask Task TaskControl TaskGroup TaskMaybeU32 TaskPriority TaskRunQueue TaskScheduler
  TaskSchedulerEventType TaskSchedulerHistory TaskSchedulerRoot TaskStatus TaskTime TimerTask)

set(VELIK_LAYER_stats_DIRS stats)
set(VELIK_LAYER_stats_LINKS scheduler)
set(VELIK_LAYER_stats_HEADERS LatencyHistogram RunHistograms TaskSchedulerQueueStats TaskStat)

set(VELIK_LAYER_report_DIRS report)
set(VELIK_LAYER_report_LINKS stats)
set(VELIK_LAYER_report_HEADERS
  FdToStream PrometheusExposition SnapshotRenderJson TaskSchedulerPrintContext
  TaskSchedulerSnapshot TaskSchedulerTextReport)

set(VELIK_LAYER_sentinel_DIRS sentinel)
set(VELIK_LAYER_sentinel_LINKS scheduler)
set(VELIK_LAYER_sentinel_HEADERS StallSentinel)
# Unwinds a stuck thread's stack from a signal handler.
set(VELIK_LAYER_sentinel_PRIVATE PkgConfig::LIBUNWIND)

set(VELIK_LAYER_endpoint_DIRS endpoint)
set(VELIK_LAYER_endpoint_LINKS report util sentinel)
set(VELIK_LAYER_endpoint_HEADERS MetricsEndpoint StatsEndpoint Velik)

# Every public header must have its layer: a new one is placed here first.
function(velik_check_layer_headers)
  set(placed "")
  foreach(layer IN LISTS VELIK_LAYERS)
    list(APPEND placed ${VELIK_LAYER_${layer}_HEADERS})
  endforeach()
  file(GLOB headers RELATIVE ${PROJECT_SOURCE_DIR}/include/Velik
       ${PROJECT_SOURCE_DIR}/include/Velik/*.h)
  foreach(header IN LISTS headers)
    string(REGEX REPLACE "\\.h$" "" stem "${header}")
    if(NOT stem IN_LIST placed)
      message(FATAL_ERROR "include/Velik/${header} belongs to no layer: add it to "
                          "cmake/VelikLayers.cmake")
    endif()
  endforeach()
endfunction()

# Stages the layer's headers (public ones as Velik/X.h, its folders' own as
# folder/X.h) as links under the build tree, and makes the object library
# velik_<layer> that sees them and the layers it links.
function(velik_add_layer layer)
  set(stage ${PROJECT_BINARY_DIR}/layers/${layer})
  file(REMOVE_RECURSE ${stage})
  file(MAKE_DIRECTORY ${stage}/Velik)
  foreach(stem IN LISTS VELIK_LAYER_${layer}_HEADERS)
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/include/Velik/${stem}.h ${stage}/Velik/${stem}.h
         SYMBOLIC)
  endforeach()
  set(sources "")
  foreach(dir IN LISTS VELIK_LAYER_${layer}_DIRS)
    file(GLOB private RELATIVE ${PROJECT_SOURCE_DIR}/src/${dir}
         ${PROJECT_SOURCE_DIR}/src/${dir}/*.h)
    file(MAKE_DIRECTORY ${stage}/${dir})
    foreach(header IN LISTS private)
      file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src/${dir}/${header} ${stage}/${dir}/${header}
           SYMBOLIC)
    endforeach()
    file(GLOB dir_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/${dir}/*.cpp
         ${PROJECT_SOURCE_DIR}/src/${dir}/*.c)
    list(APPEND sources ${dir_sources})
  endforeach()

  add_library(velik_${layer} OBJECT ${sources})
  velik_source_names(${sources})
  target_include_directories(velik_${layer} PUBLIC ${stage})
  foreach(below IN LISTS VELIK_LAYER_${layer}_LINKS)
    target_link_libraries(velik_${layer} PUBLIC velik_${below})
  endforeach()
  target_link_libraries(velik_${layer} PUBLIC Kiv fmt::fmt Threads::Threads KivVelik::Libevent
                                              Boost::headers)
  target_include_directories(velik_${layer} SYSTEM PRIVATE ${RAPIDJSON_INCLUDE_DIRS})
  target_compile_options(velik_${layer} PRIVATE -fno-semantic-interposition)
  if(VELIK_LAYER_${layer}_PRIVATE)
    target_link_libraries(velik_${layer} PRIVATE ${VELIK_LAYER_${layer}_PRIVATE})
  endif()
endfunction()
