// The sentinel's view of one root: its stall in progress, the backtraces of
// it, and the ring of its last stalls.
#pragma once

#include "sentinel/FrameSymbols.h"
#include "sentinel/StackCapture.h"

#include <Velik/Debug.h>
#include <Velik/RunPublication.h>
#include <Velik/StallSentinel.h>

#include <boost/circular_buffer.hpp>

#include <memory>
#include <mutex>
#include <vector>

namespace Velik::Impl {

// The sentinel's trace facility, "VelikSentinel".
Platform::DebugHandler* sentinelTrace();

// The options in force for one pass of the sentinel.
struct WatchSettings {
    TaskTimeDuration threshold{0};
    TaskTimeDuration interval{0};
    // How long the sentinel waits for one backtrace.
    TaskTimeDuration captureWait{0};
    std::uint32_t samplesKept = 0;
    int signal = 0;
};

// A stall that started or ended, for the callback.
struct StallNotice {
    StallEvent event;
    StallRecord record;
};

class RootWatch {
  public:
    explicit RootWatch(std::shared_ptr<RunPublication> publication);
    RootWatch(const RootWatch&) = delete;
    RootWatch& operator=(const RootWatch&) = delete;

    const RunPublication& publication() const { return *publication_; }

    // --- The sentinel thread ---

    // Looks at the root at `now`: finds, samples and ends stalls, adding a
    // notice for each start and end. Returns when it next needs a look
    // (the time the running task crosses its threshold, or the next
    // backtrace); the far future when nothing is due.
    TaskTimePoint check(TaskTimePoint now, const WatchSettings& settings, FrameSymbols& symbols,
                        std::vector<StallNotice>& notices);
    // Whether a backtrace request is still unanswered: the slot must then
    // outlive the watch (a late handler writes to it).
    bool captureOutstanding() const;
    // Whether the root is gone and nothing of it is worth keeping.
    bool finished() const;
    bool hasRecords() const;
    std::uint64_t lastStallId() const;

    // --- Any thread ---

    RootStalls stalls() const;
    // Whether `run` is the stall in progress; its task's name in `taskName`
    // if a backtrace caught it.
    bool stalledOn(const RunPublication::Run& run, std::string& taskName) const;

  private:
    TaskTimeDuration thresholdFor(const RunPublication::Run& run,
                                  const WatchSettings& settings) const;
    void stallOpen(TaskTimePoint now, const RunPublication::Run& run, TaskTimeDuration threshold,
                   const WatchSettings& settings, FrameSymbols& symbols,
                   std::vector<StallNotice>& notices);
    void stallClose(TaskTimePoint end, std::vector<StallNotice>& notices);
    // Takes one backtrace of the stall; false when the thread is gone.
    bool sample(const WatchSettings& settings, FrameSymbols& symbols);
    // Moves a finished capture of the stalled run into its record.
    void sampleTake(const WatchSettings& settings, FrameSymbols& symbols);

    const std::shared_ptr<RunPublication> publication_;
    CaptureSlot slot_;

    // The sentinel thread's own state.
    bool stalled_ = false;
    RunPublication::Run stalledRun_;
    TaskTimePoint nextSample_{};

    // The ring; its last record is the stall in progress, if any.
    mutable std::mutex mutex_;
    boost::circular_buffer<StallRecord> ring_{stallRingCapacity};
};

}  // namespace Velik::Impl
