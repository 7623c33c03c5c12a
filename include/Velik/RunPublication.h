// What a root's thread is running, published for other threads.
//
// Every root publishes, in a few atomic words, which task its thread is
// running and since when, so that a watcher on another thread (the stall
// sentinel, `Velik/StallSentinel.h`) can tell a task that does not give the
// thread back, without a lock and without ever touching the root or its
// tasks. The owning thread writes at the start and end of every run; nested
// runs (a task group's parent task running the group's tasks) publish the
// innermost task and put the outer one back when it ends.
//
// The words are written as a sequence lock: an odd version while the owner
// writes, a new even version when it is done. A reader copies the words
// between two equal even versions, so it never mixes two runs. A published
// task pointer is an identity only: other threads compare it, never follow
// it (the task may be gone by the time they look). Code running ON the
// owning thread (a signal handler interrupting it) may follow it, because a
// published task is running there and so is alive.
//
// Roots register their publication in a process-wide list when made and
// unregister when destroyed; the list holds shared pointers, so a reader that
// copied the list keeps every publication it looks at alive, whatever the
// roots and their threads do meanwhile.
#pragma once

#include <Velik/TaskTime.h>

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace Velik {

class TaskImpl;

namespace Impl {

class RunPublication {
  public:
    // One published run: the task (an identity across threads) and the
    // steady-clock time it started. A null task means the thread runs none.
    struct Run {
        const TaskImpl* task = nullptr;
        TaskTimePoint start{};

        friend bool operator==(const Run&, const Run&) = default;
    };

    // A consistent copy of the published words.
    struct Snapshot {
        // Even; it changes with every publication.
        std::uint64_t version = 0;
        Run running;
        // The run that ended last, and when.
        Run ended;
        TaskTimePoint endedAt{};
    };

    RunPublication(std::string rootName, pid_t tid, std::string threadName);
    RunPublication(const RunPublication&) = delete;
    RunPublication& operator=(const RunPublication&) = delete;

    // --- The owning thread's side: plain atomic stores, no allocation ---

    // Publishes `task` as running since `start`; returns the run it hides
    // (the enclosing one, or none), to be handed back to `runEnded`.
    Run runStarted(const TaskImpl* task, TaskTimePoint start) {
        const Run outer{task_.load(std::memory_order_relaxed),
                        TaskTimePoint(TaskTimeDuration(start_.load(std::memory_order_relaxed)))};
        write(task, start.time_since_epoch().count(), nullptr, 0, 0, false);
        return outer;
    }
    // Publishes `outer` again and `ended` as the run that ended at `end`.
    void runEnded(const Run& outer, const Run& ended, TaskTimePoint end) {
        write(outer.task, outer.start.time_since_epoch().count(), ended.task,
              ended.start.time_since_epoch().count(), end.time_since_epoch().count(), true);
    }
    // The run published now, read by the owning thread (also from a signal
    // handler interrupting it).
    Run current() const {
        return Run{task_.load(std::memory_order_relaxed),
                   TaskTimePoint(TaskTimeDuration(start_.load(std::memory_order_relaxed)))};
    }

    // --- Any thread ---

    // A consistent copy. Never waits on the owner: it retries only while a
    // publication is being written (a few stores), and after many retries
    // returns the running run as unknown (null task).
    Snapshot read() const;

    const std::string& rootName() const { return rootName_; }
    pid_t tid() const { return tid_; }
    const std::string& threadName() const { return threadName_; }

    // The root's own stall threshold; zero means the watcher's default.
    TaskTimeDuration stallThreshold() const {
        return TaskTimeDuration(stallThresholdNs_.load(std::memory_order_relaxed));
    }
    void stallThresholdIs(TaskTimeDuration threshold) {
        stallThresholdNs_.store(threshold.count(), std::memory_order_relaxed);
    }

    // Thresholds of single tasks known to run long, by task identity. Set
    // and erased by the owning thread; looked up by the watcher. Zero: none.
    void taskStallThresholdIs(const TaskImpl* task, TaskTimeDuration threshold);
    TaskTimeDuration taskStallThreshold(const TaskImpl* task) const;

    // Set when the root is destroyed: the thread no longer publishes.
    bool retired() const { return retired_.load(std::memory_order_acquire); }
    void retiredIs() { retired_.store(true, std::memory_order_release); }

  private:
    void write(const TaskImpl* task, std::int64_t start, const TaskImpl* endedTask,
               std::int64_t endedStart, std::int64_t endedAt, bool withEnded) {
        const std::uint64_t version = version_.load(std::memory_order_relaxed);
        version_.store(version + 1, std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_release);
        task_.store(task, std::memory_order_relaxed);
        start_.store(start, std::memory_order_relaxed);
        if (withEnded) {
            endedTask_.store(endedTask, std::memory_order_relaxed);
            endedStart_.store(endedStart, std::memory_order_relaxed);
            endedAt_.store(endedAt, std::memory_order_relaxed);
        }
        version_.store(version + 2, std::memory_order_release);
    }

    // The words a run writes share one cache line, away from the rest.
    alignas(64) std::atomic<std::uint64_t> version_{0};
    std::atomic<const TaskImpl*> task_{nullptr};
    std::atomic<std::int64_t> start_{0};
    std::atomic<const TaskImpl*> endedTask_{nullptr};
    std::atomic<std::int64_t> endedStart_{0};
    std::atomic<std::int64_t> endedAt_{0};

    alignas(64) std::atomic<std::int64_t> stallThresholdNs_{0};
    std::atomic<bool> retired_{false};
    const std::string rootName_;
    const pid_t tid_;
    const std::string threadName_;
    mutable std::mutex taskThresholdsMutex_;
    std::unordered_map<const TaskImpl*, TaskTimeDuration> taskThresholds_;
};

// The process-wide list of published roots.
void publishedRootRegister(std::shared_ptr<RunPublication> publication);
void publishedRootUnregister(const RunPublication* publication);
// A copy of the list, in registration order.
std::vector<std::shared_ptr<RunPublication>> publishedRoots();

}  // namespace Impl
}  // namespace Velik
