#include "Velik/RunPublication.h"

#include <algorithm>
#include <utility>

namespace Velik::Impl {

namespace {

// A reader gives up after this many torn copies: the owner writes a handful
// of words at a time, so only a reader descheduled mid-copy again and again
// gets here.
constexpr int readAttempts = 1000;

struct Registry {
    std::mutex mutex;
    std::vector<std::shared_ptr<RunPublication>> roots;
};

Registry& registry() {
    // Never destroyed: roots of threads that outlive static destruction
    // still unregister.
    static Registry* const instance = new Registry;
    return *instance;
}

TaskTimePoint pointOf(std::int64_t ns) {
    return TaskTimePoint(TaskTimeDuration(ns));
}

}  // namespace

RunPublication::RunPublication(std::string rootName, pid_t tid, std::string threadName)
    : rootName_(std::move(rootName)), tid_(tid), threadName_(std::move(threadName)) {}

RunPublication::Snapshot RunPublication::read() const {
    Snapshot copy;
    for (int attempt = 0; attempt < readAttempts; ++attempt) {
        const std::uint64_t before = version_.load(std::memory_order_acquire);
        if (before & 1) {
            continue;
        }
        copy.version = before;
        copy.running = Run{task_.load(std::memory_order_relaxed),
                           pointOf(start_.load(std::memory_order_relaxed))};
        copy.ended = Run{endedTask_.load(std::memory_order_relaxed),
                         pointOf(endedStart_.load(std::memory_order_relaxed))};
        copy.endedAt = pointOf(endedAt_.load(std::memory_order_relaxed));
        std::atomic_thread_fence(std::memory_order_acquire);
        if (version_.load(std::memory_order_relaxed) == before) {
            return copy;
        }
    }
    copy.running = Run{};
    return copy;
}

void RunPublication::taskStallThresholdIs(const TaskImpl* task, TaskTimeDuration threshold) {
    std::lock_guard guard(taskThresholdsMutex_);
    if (threshold.count() == 0) {
        taskThresholds_.erase(task);
    } else {
        taskThresholds_[task] = threshold;
    }
}

TaskTimeDuration RunPublication::taskStallThreshold(const TaskImpl* task) const {
    std::lock_guard guard(taskThresholdsMutex_);
    auto found = taskThresholds_.find(task);
    return found == taskThresholds_.end() ? TaskTimeDuration(0) : found->second;
}

void publishedRootRegister(std::shared_ptr<RunPublication> publication) {
    Registry& r = registry();
    std::lock_guard guard(r.mutex);
    r.roots.push_back(std::move(publication));
}

void publishedRootUnregister(const RunPublication* publication) {
    Registry& r = registry();
    std::lock_guard guard(r.mutex);
    std::erase_if(r.roots, [publication](const auto& p) { return p.get() == publication; });
}

std::vector<std::shared_ptr<RunPublication>> publishedRoots() {
    Registry& r = registry();
    std::lock_guard guard(r.mutex);
    return r.roots;
}

}  // namespace Velik::Impl
