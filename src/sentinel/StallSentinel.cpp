#include "Velik/StallSentinel.h"

#include "sentinel/RootWatch.h"

#include "Velik/Exception.h"
#include "Velik/Fmtrace.h"

#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <thread>

namespace Velik {

namespace {

using Impl::RootWatch;
using Impl::RunPublication;

// The sentinel's state. `mutex` guards everything here; the sentinel
// thread holds it only to read the options and to change the set of
// watches, never while it takes a backtrace or calls the callback.
struct Sentinel {
    std::mutex mutex;
    std::condition_variable wake;
    StallOptions options;
    bool running = false;
    bool stopping = false;
    std::thread thread;
    // By publication; a watch holds its publication, so no key is reused
    // while it is here.
    std::map<const RunPublication*, std::shared_ptr<RootWatch>> watches;
};

Sentinel& sentinel() {
    static Sentinel* const instance = new Sentinel;  // outlives static destruction
    return *instance;
}

// Watches dropped while one of their backtrace requests was unanswered: the
// handler may still write to them, so they are kept for good.
std::vector<std::shared_ptr<RootWatch>>& keptForLateCaptures() {
    static auto* const kept = new std::vector<std::shared_ptr<RootWatch>>;
    return *kept;
}

void dropWatch(std::shared_ptr<RootWatch> watch) {
    if (watch->captureOutstanding()) {
        keptForLateCaptures().push_back(std::move(watch));
    }
}

void checkOptions(const StallOptions& options) {
    if (options.threshold.count() <= 0 || options.interval.count() <= 0) {
        OutOfRangeException::throwException(
            fmt::format("stall threshold {} ns and interval {} ns must be positive",
                        options.threshold.count(), options.interval.count()));
    }
    if (options.samplesKept < 1 || options.samplesKept > stallFramesMax) {
        OutOfRangeException::throwException(fmt::format(
            "{} backtraces kept per stall: 1 to {} may be", options.samplesKept, stallFramesMax));
    }
}

Impl::WatchSettings settingsOf(const StallOptions& options) {
    Impl::WatchSettings settings;
    settings.threshold = options.threshold;
    settings.interval = options.interval;
    settings.captureWait = std::clamp<TaskTimeDuration>(
        options.interval, std::chrono::milliseconds(20), std::chrono::milliseconds(100));
    settings.samplesKept = options.samplesKept;
    settings.signal = options.signalNumber;
    return settings;
}

// How often the list of roots is looked at: often enough that a run that
// began after one look is seen again before it can cross the threshold.
TaskTimeDuration pollPeriod(const StallOptions& options) {
    return std::clamp<TaskTimeDuration>(std::min(options.threshold, options.interval) / 2,
                                        std::chrono::milliseconds(1),
                                        std::chrono::milliseconds(50));
}

// Adds watches for new roots; drops those of ended roots with nothing
// worth keeping, and the oldest ended ones beyond the number kept.
void syncWatches(Sentinel& s, const std::vector<std::shared_ptr<RunPublication>>& roots) {
    for (const auto& root : roots) {
        if (!s.watches.contains(root.get())) {
            s.watches.emplace(root.get(), std::make_shared<RootWatch>(root));
        }
    }
    std::vector<std::pair<std::uint64_t, const RunPublication*>> ended;
    for (auto it = s.watches.begin(); it != s.watches.end();) {
        if (it->second->finished()) {
            dropWatch(std::move(it->second));
            it = s.watches.erase(it);
            continue;
        }
        if (it->second->publication().retired()) {
            ended.emplace_back(it->second->lastStallId(), it->first);
        }
        ++it;
    }
    if (ended.size() > retiredRootsKept) {
        std::sort(ended.begin(), ended.end());
        for (std::size_t i = 0; i < ended.size() - retiredRootsKept; ++i) {
            auto found = s.watches.find(ended[i].second);
            dropWatch(std::move(found->second));
            s.watches.erase(found);
        }
    }
}

void sentinelLoop() {
    Sentinel& s = sentinel();
    Impl::FrameSymbols symbols;
    std::unique_lock lock(s.mutex);
    while (!s.stopping) {
        const Impl::WatchSettings settings = settingsOf(s.options);
        const TaskTimeDuration poll = pollPeriod(s.options);
        const StallCallback callback = s.options.callback;
        syncWatches(s, Impl::publishedRoots());
        std::vector<std::shared_ptr<RootWatch>> watches;
        for (const auto& entry : s.watches) {
            watches.push_back(entry.second);
        }
        lock.unlock();

        const TaskTimePoint now = taskSteadyNow();
        TaskTimePoint next = now + poll;
        std::vector<Impl::StallNotice> notices;
        for (const auto& watch : watches) {
            next = std::min(next, watch->check(now, settings, symbols, notices));
        }
        if (callback) {
            for (const Impl::StallNotice& notice : notices) {
                callback(notice.event, notice.record);
            }
        }

        lock.lock();
        const TaskTimeDuration sleep = next - taskSteadyNow();
        if (sleep.count() > 0 && !s.stopping) {
            s.wake.wait_for(lock, sleep);
        }
    }
}

// The thread starts with every signal blocked: the capture signal must never
// land on it, nor should the application's signals.
std::thread sentinelThreadStart() {
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    std::thread thread(sentinelLoop);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    pthread_setname_np(thread.native_handle(), "velik-sentinel");
    return thread;
}

}  // namespace

namespace {

// Starts the thread or adopts `options`; `s.mutex` held.
void watchLocked(Sentinel& s, const StallOptions& options) {
    Impl::captureSignalInstall(options.signalNumber);
    s.options = options;
    if (s.running) {
        s.wake.notify_all();
        return;
    }
    VELIK_FTRACE(Impl::sentinelTrace(), 4, "Watching for stalls over {} ms, signal {}",
                 static_cast<double>(options.threshold.count()) / 1e6, options.signalNumber);
    s.running = true;
    s.stopping = false;
    s.thread = sentinelThreadStart();
}

}  // namespace

void watchStalls(const StallOptions& options) {
    checkOptions(options);
    Sentinel& s = sentinel();
    std::lock_guard guard(s.mutex);
    watchLocked(s, options);
}

bool watchStallsUnlessWatching(const StallOptions& options) {
    checkOptions(options);
    Sentinel& s = sentinel();
    std::lock_guard guard(s.mutex);
    if (s.running) {
        return false;
    }
    watchLocked(s, options);
    return true;
}

std::string stallTopFrame(const StallRecord& stall) {
    if (stall.samples.empty()) {
        return {};
    }
    // The handler skips its own frames; a frame of the capture code still
    // shows when the thread was caught inside it (a second request).
    for (const std::string& frame : stall.samples.back().frames) {
        if (frame.find("captureHere") == std::string::npos &&
            frame.find("onCaptureSignal") == std::string::npos &&
            frame.find("__restore_rt") == std::string::npos) {
            return frame;
        }
    }
    return {};
}

void stopWatchingStalls() {
    Sentinel& s = sentinel();
    std::thread thread;
    {
        std::lock_guard guard(s.mutex);
        if (!s.running) {
            return;
        }
        s.stopping = true;
        s.wake.notify_all();
        thread = std::move(s.thread);
    }
    thread.join();
    std::lock_guard guard(s.mutex);
    for (auto& entry : s.watches) {
        dropWatch(std::move(entry.second));
    }
    s.watches.clear();
    s.running = false;
    s.stopping = false;
}

bool watchingStalls() {
    Sentinel& s = sentinel();
    std::lock_guard guard(s.mutex);
    return s.running;
}

std::vector<RootRunStatus> rootRunStatuses() {
    const auto roots = Impl::publishedRoots();
    std::map<const RunPublication*, std::shared_ptr<RootWatch>> watches;
    {
        Sentinel& s = sentinel();
        std::lock_guard guard(s.mutex);
        watches = s.watches;
    }
    const TaskTimePoint now = taskSteadyNow();
    std::vector<RootRunStatus> statuses;
    statuses.reserve(roots.size());
    for (const auto& root : roots) {
        RootRunStatus status;
        status.rootId = reinterpret_cast<std::uintptr_t>(root.get());
        status.rootName = root->rootName();
        status.tid = root->tid();
        status.threadName = root->threadName();
        const RunPublication::Run run = root->read().running;
        status.running = run.task != nullptr;
        if (status.running) {
            status.taskId = reinterpret_cast<std::uintptr_t>(run.task);
            status.runningSince = run.start;
            status.runningFor = std::max(now - run.start, TaskTimeDuration(0));
            auto watch = watches.find(root.get());
            status.stalled =
                watch != watches.end() && watch->second->stalledOn(run, status.taskName);
        }
        statuses.push_back(std::move(status));
    }
    return statuses;
}

std::vector<RootStalls> stallRecords() {
    std::vector<std::shared_ptr<RootWatch>> watches;
    {
        Sentinel& s = sentinel();
        std::lock_guard guard(s.mutex);
        for (const auto& entry : s.watches) {
            watches.push_back(entry.second);
        }
    }
    std::vector<RootStalls> rings;
    rings.reserve(watches.size());
    for (const auto& watch : watches) {
        rings.push_back(watch->stalls());
    }
    return rings;
}

}  // namespace Velik
