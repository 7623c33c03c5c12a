#include "sentinel/RootWatch.h"

#include "Velik/Fmtrace.h"

#include <fmt/format.h>

#include <atomic>
#include <fstream>

namespace Velik::Impl {

namespace {

constexpr const char* traceClassName = "StallSentinel";

std::atomic<std::uint64_t> stallIds{0};

TaskTimePoint never() {
    return TaskTimePoint::max();
}

double milliseconds(TaskTimeDuration duration) {
    return static_cast<double>(duration.count()) / 1e6;
}

// The thread's name now (it may have been renamed since its root was made).
std::string currentThreadName(pid_t tid, const std::string& fallback) {
    std::ifstream comm(fmt::format("/proc/self/task/{}/comm", tid));
    std::string name;
    return std::getline(comm, name) ? name : fallback;
}

const std::string& shownName(const StallRecord& record) {
    static const std::string unknown = "?";
    return record.taskName.empty() ? unknown : record.taskName;
}

void traceFrames(const StallRecord& record) {
    if (record.samples.empty()) {
        return;
    }
    const StallSample& latest = record.samples.back();
    for (std::size_t i = 0; i < latest.frames.size(); ++i) {
        VELIK_FTRACE(sentinelTrace(), 5, "Stall {} #{} {}", record.id, i, latest.frames[i]);
    }
}

}  // namespace

Platform::DebugHandler* sentinelTrace() {
    static const std::shared_ptr<Platform::DebugHandler> handle =
        Platform::getDebugHandler("VelikSentinel");
    return handle.get();
}

RootWatch::RootWatch(std::shared_ptr<RunPublication> publication)
    : publication_(std::move(publication)) {
    slot_.tid = publication_->tid();
    slot_.publication = publication_.get();
}

TaskTimePoint RootWatch::check(TaskTimePoint now, const WatchSettings& settings,
                               FrameSymbols& symbols, std::vector<StallNotice>& notices) {
    const bool retired = publication_->retired();
    const RunPublication::Snapshot snapshot = publication_->read();
    if (stalled_) {
        if (!retired && snapshot.running == stalledRun_) {
            if (now >= nextSample_) {
                nextSample_ = now + settings.interval;
                if (!sample(settings, symbols)) {
                    stallClose(now, notices);
                    return never();
                }
            }
            std::lock_guard guard(mutex_);
            ring_.back().duration = now - stalledRun_.start;
            return nextSample_;
        }
        // Ended: exactly when the publication still shows its end, else
        // when the sentinel saw it gone.
        stallClose(snapshot.ended == stalledRun_ ? snapshot.endedAt : now, notices);
    }
    if (retired || !snapshot.running.task) {
        return never();
    }
    const TaskTimeDuration threshold = thresholdFor(snapshot.running, settings);
    const TaskTimePoint crossing = snapshot.running.start + threshold;
    if (now < crossing) {
        return crossing;
    }
    stallOpen(now, snapshot.running, threshold, settings, symbols, notices);
    return stalled_ ? nextSample_ : never();
}

TaskTimeDuration RootWatch::thresholdFor(const RunPublication::Run& run,
                                         const WatchSettings& settings) const {
    TaskTimeDuration threshold = publication_->taskStallThreshold(run.task);
    if (threshold.count() == 0) {
        threshold = publication_->stallThreshold();
    }
    return threshold.count() != 0 ? threshold : settings.threshold;
}

void RootWatch::stallOpen(TaskTimePoint now, const RunPublication::Run& run,
                          TaskTimeDuration threshold, const WatchSettings& settings,
                          FrameSymbols& symbols, std::vector<StallNotice>& notices) {
    StallRecord record;
    record.id = ++stallIds;
    record.rootName = publication_->rootName();
    record.tid = publication_->tid();
    record.threadName = currentThreadName(record.tid, publication_->threadName());
    record.taskId = reinterpret_cast<std::uintptr_t>(run.task);
    record.start = run.start;
    record.threshold = threshold;
    record.duration = now - run.start;
    {
        std::lock_guard guard(mutex_);
        ring_.push_back(std::move(record));
    }
    stalled_ = true;
    stalledRun_ = run;
    nextSample_ = now + settings.interval;
    const bool alive = sample(settings, symbols);
    std::lock_guard guard(mutex_);
    const StallRecord& opened = ring_.back();
    VELIK_FTRACE(sentinelTrace(), 1, "Stall {} task {} ({:#x}) on {} tid {} ({}) running {:.1f} ms",
                 opened.id, shownName(opened), opened.taskId, opened.rootName, opened.tid,
                 opened.threadName, milliseconds(opened.duration));
    traceFrames(opened);
    notices.push_back({StallEvent::started, opened});
    if (!alive) {
        ring_.back().ended = true;
        stalled_ = false;
        notices.push_back({StallEvent::ended, ring_.back()});
    }
}

void RootWatch::stallClose(TaskTimePoint end, std::vector<StallNotice>& notices) {
    stalled_ = false;
    std::lock_guard guard(mutex_);
    StallRecord& record = ring_.back();
    record.ended = true;
    record.duration = std::max(end - record.start, record.duration);
    VELIK_FTRACE(sentinelTrace(), 1, "Stall {} ended: task {} on {} tid {} ran {:.1f} ms",
                 record.id, shownName(record), record.rootName, record.tid,
                 milliseconds(record.duration));
    notices.push_back({StallEvent::ended, record});
}

bool RootWatch::sample(const WatchSettings& settings, FrameSymbols& symbols) {
    if (slot_.state.load(std::memory_order_acquire) == CaptureSlot::done) {
        sampleTake(settings, symbols);  // a late answer to the last request
        return true;
    }
    switch (captureStack(slot_, settings.signal, settings.captureWait)) {
        case CaptureResult::done:
            sampleTake(settings, symbols);
            return true;
        case CaptureResult::threadGone:
            return false;
        case CaptureResult::timedOut:
        case CaptureResult::busy:
            return true;
    }
    return true;
}

void RootWatch::sampleTake(const WatchSettings& settings, FrameSymbols& symbols) {
    const bool ours = slot_.run == stalledRun_;
    StallSample sample;
    sample.takenAt = taskSteadyNow();
    if (ours) {
        sample.addresses.reserve(slot_.frameCount);
        sample.frames.reserve(slot_.frameCount);
        for (std::uint32_t i = 0; i < slot_.frameCount; ++i) {
            const auto address = reinterpret_cast<std::uintptr_t>(slot_.frames[i]);
            sample.addresses.push_back(address);
            sample.frames.push_back(symbols.describe(address));
        }
    }
    const std::string name(slot_.name, slot_.nameLength);
    slot_.state.store(CaptureSlot::idle, std::memory_order_release);
    if (!ours) {
        return;  // taken for another run: a stale answer
    }
    std::lock_guard guard(mutex_);
    StallRecord& record = ring_.back();
    if (record.taskName.empty()) {
        record.taskName = name;
    }
    ++record.sampleCount;
    if (record.samples.size() < settings.samplesKept) {
        record.samples.push_back(std::move(sample));
    } else {
        record.samples.back() = std::move(sample);
    }
    if (record.sampleCount > 1) {
        traceFrames(record);
    }
}

bool RootWatch::captureOutstanding() const {
    return slot_.state.load(std::memory_order_acquire) == CaptureSlot::requested;
}

bool RootWatch::finished() const {
    return publication_->retired() && !stalled_ && !hasRecords();
}

bool RootWatch::hasRecords() const {
    std::lock_guard guard(mutex_);
    return !ring_.empty();
}

std::uint64_t RootWatch::lastStallId() const {
    std::lock_guard guard(mutex_);
    return ring_.empty() ? 0 : ring_.back().id;
}

RootStalls RootWatch::stalls() const {
    RootStalls copy;
    copy.rootId = reinterpret_cast<std::uintptr_t>(publication_.get());
    copy.rootName = publication_->rootName();
    copy.tid = publication_->tid();
    copy.threadName = publication_->threadName();
    copy.live = !publication_->retired();
    std::lock_guard guard(mutex_);
    copy.stalls.assign(ring_.begin(), ring_.end());
    return copy;
}

bool RootWatch::stalledOn(const RunPublication::Run& run, std::string& taskName) const {
    std::lock_guard guard(mutex_);
    if (ring_.empty() || ring_.back().ended ||
        ring_.back().taskId != reinterpret_cast<std::uintptr_t>(run.task) ||
        ring_.back().start != run.start) {
        return false;
    }
    taskName = ring_.back().taskName;
    return true;
}

}  // namespace Velik::Impl
