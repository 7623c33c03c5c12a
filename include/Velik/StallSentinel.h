// The stall sentinel: catches tasks that do not give their thread back.
//
// A cooperative scheduler relies on every task returning soon. The sentinel
// is one process-wide thread that watches what every root publishes (which
// task runs, since when: `Velik/RunPublication.h`). A run longer than its
// threshold is a *stall*: the sentinel records it, and while it lasts takes
// a backtrace of the stuck thread every interval, so a loop shows where it
// spins; when the run ends it records the final duration.
//
//   Velik::StallOptions options;
//   options.threshold = std::chrono::milliseconds(200);
//   options.callback = [](Velik::StallEvent event, const Velik::StallRecord& stall) {
//       if (event == Velik::StallEvent::started) alarm(stall.taskName);
//   };
//   Velik::watchStalls(options);
//   ...
//   compactor->taskStallThresholdIs(std::chrono::seconds(2));  // known to run long
//   root->stallThresholdIs(std::chrono::milliseconds(50));     // a latency-critical thread
//
// Thresholds: a task's own (`TaskImpl::taskStallThresholdIs`), else its
// root's (`TaskSchedulerRoot::stallThresholdIs`), else the sentinel's. In a
// task group the innermost running task is watched; its parent task's run
// shows again once the inner one ends.
//
// Backtraces: the sentinel sends a signal to the stuck thread (by kernel
// thread id, so a thread that is gone is simply not found). The handler runs
// on that thread: it walks its own stack with libunwind into memory the
// sentinel set aside beforehand and copies the running task's display name
// there (the task is alive while it runs on that thread, so no other thread
// ever follows a task pointer), then marks the capture done. It allocates
// nothing, takes no lock and does no I/O, so it is safe in a thread stuck
// in a loop, in a blocking system call (restarted afterwards: SA_RESTART),
// inside malloc, or exiting. Symbols are looked up on the sentinel thread
// (`dladdr`, demangled, cached); code not in the dynamic symbol table shows
// as an address with its object and offset.
//
// The signal is SIGRTMIN+3 by default: a real-time signal is queued with
// the sentinel's request (never merged with another), the kernel never
// raises it on its own (SIGURG, the other candidate, arrives for socket
// out-of-band data and is taken by the Go runtime), and the C library keeps
// only the first real-time signals for itself. The sentinel never replaces
// a handler the application installed on it: `watchStalls` refuses.
//
// Records: each root keeps its last 32 stalls (`stallRingCapacity`). A
// root's records outlive it (a thread that ends while stalled still shows),
// up to `retiredRootsKept` ended roots. Reading status and records is safe
// from any thread and never waits for a root's thread, so an endpoint can
// serve them while the root is stuck.
//
// Trace: facility "VelikSentinel". A stall writes one line at level 1 when
// it starts (task, root, thread, time so far) and one when it ends (final
// duration); the frames of each backtrace follow at level 5.
#pragma once

#include <Velik/TaskTime.h>

#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Velik {

// One backtrace of a stuck thread.
struct StallSample {
    // When the sentinel had the capture in hand (steady clock).
    TaskTimePoint takenAt{};
    // Code addresses, innermost first: the first is where the thread was
    // interrupted, the others return addresses.
    std::vector<std::uintptr_t> addresses;
    // One text per address: "symbol+0x1f (libfoo.so)" where the dynamic
    // loader knows a symbol, else "0x7f...(libfoo.so+0x1234)" or the bare
    // address.
    std::vector<std::string> frames;
};

// One stall: a run that took longer than its threshold.
struct StallRecord {
    // Process-wide, from 1 in the order stalls were found.
    std::uint64_t id = 0;
    std::string rootName;
    pid_t tid = 0;
    // The thread's name when the stall was found.
    std::string threadName;
    // The task's identity (its address; an identity only).
    std::uintptr_t taskId = 0;
    // The task's display name ("N reader"), as a backtrace caught it on the
    // stuck thread; empty if none did (the thread never answered).
    std::string taskName;
    // When the run began (steady clock) and the threshold it crossed.
    TaskTimePoint start{};
    TaskTimeDuration threshold{0};
    // How long the run has taken so far; once `ended`, its final duration.
    TaskTimeDuration duration{0};
    bool ended = false;
    // Backtraces taken in all, and those kept: the first ones, and as the
    // last element the latest.
    std::uint32_t sampleCount = 0;
    std::vector<StallSample> samples;
};

enum class StallEvent : std::uint8_t { started, ended };

// Called on the sentinel thread when a stall is found (after its first
// backtrace) and when it ends, with a copy of the record. It holds up the
// sentinel while it runs: keep it short, and do not call `watchStalls` or
// `stopWatchingStalls` from it.
using StallCallback = std::function<void(StallEvent event, const StallRecord& stall)>;

struct StallOptions {
    // A run longer than this is a stall, unless its task or root says
    // otherwise.
    TaskTimeDuration threshold = std::chrono::milliseconds(100);
    // Time between backtraces of a stall that lasts.
    TaskTimeDuration interval = std::chrono::milliseconds(100);
    // Backtraces kept per stall (1 to 64): the first ones and the latest.
    std::uint32_t samplesKept = 8;
    // The signal that asks a stuck thread for its backtrace (see above).
    int signalNumber = SIGRTMIN + 3;
    StallCallback callback;
};

// Stalls kept per root.
constexpr std::size_t stallRingCapacity = 32;
// Ended roots whose records are kept (the oldest go first).
constexpr std::size_t retiredRootsKept = 16;
// Frames kept per backtrace.
constexpr std::size_t stallFramesMax = 64;

// Starts the sentinel thread with `options`, or, when it runs already,
// adopts them (no second thread). Throws `Velik::RuntimeException` when the
// signal already has a handler (or is ignored) that is not the sentinel's,
// and `Velik::OutOfRangeException` for a threshold or interval of zero or
// less or a `samplesKept` outside 1 to 64.
void watchStalls(const StallOptions& options = StallOptions());
// Stops the sentinel thread and drops every record (mainly for tests). The
// signal handler stays installed (a capture may still be on its way).
void stopWatchingStalls();
bool watchingStalls();
// Starts the sentinel with `options` unless it runs already (whose options
// are then kept); returns whether it started it. Throws as `watchStalls`.
bool watchStallsUnlessWatching(const StallOptions& options = StallOptions());

// The innermost frame of `stall`'s latest backtrace that is not the
// sentinel's own capture code; "" when there is no backtrace yet.
std::string stallTopFrame(const StallRecord& stall);

// What one root's thread is doing now.
struct RootRunStatus {
    // The root's identity (the address of its publication): tells roots of
    // one name apart and matches a status with its `RootStalls`.
    std::uintptr_t rootId = 0;
    std::string rootName;
    pid_t tid = 0;
    std::string threadName;
    bool running = false;
    // The running task's identity, and its display name when a backtrace of
    // this stall caught it (empty otherwise: show the identity).
    std::uintptr_t taskId = 0;
    std::string taskName;
    // Since when the task runs (steady clock) and for how long so far.
    TaskTimePoint runningSince{};
    TaskTimeDuration runningFor{0};
    // Whether the sentinel holds this run for a stall.
    bool stalled = false;
};

// Every live root, in the order they were made. Any thread; works without
// the sentinel too (then no names and no stalls).
std::vector<RootRunStatus> rootRunStatuses();

// One root's stall ring.
struct RootStalls {
    // As in `RootRunStatus`.
    std::uintptr_t rootId = 0;
    std::string rootName;
    pid_t tid = 0;
    std::string threadName;
    // False once the root is gone.
    bool live = true;
    // Oldest first; the last may still be going on (`ended` false).
    std::vector<StallRecord> stalls;
};

// Copies of the stall rings of every root the sentinel watches, and of the
// ended roots it keeps. Any thread; empty while the sentinel is stopped.
std::vector<RootStalls> stallRecords();

}  // namespace Velik
