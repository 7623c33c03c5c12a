// Work handed to a thread's root from any thread.
//
// Everything a root owns belongs to its thread. To get something done there
// from elsewhere, post a function to the thread's inbox; it runs on that
// thread as a task of its root, under the name and priority given:
//
//   // On the worker thread, before its loop runs:
//   std::shared_ptr<Velik::Inbox> box = Velik::inbox();
//   ...
//   // Anywhere, any thread (also one without a root):
//   Velik::post(box, Velik::TaskPriority::normal, "reload", [] { reloadConfig(); });
//   Velik::stopEventLoop(box);   // the worker's loop returns; the rest waits
//
// Each (name, priority) pair gets one task on the target root, made when
// its first item arrives and kept for the thread's life; it runs the items
// queued for it in order, as many per run as its quantum allows, so posted
// work shows in the text report and the snapshot under that name, with its
// own statistics (one unit of work per item). Items of one producer for one
// (name, priority) run in the order posted; items of different names or
// priorities are ordered by the scheduler like any tasks. A loop stop
// requested by an item takes effect when its task's run ends, so items
// behind it under the same name may still run first.
//
// Wake-ups: one eventfd per inbox, watched on the root's thread. A producer
// writes it only when it turns the inbox's wake-up flag from clear to set;
// the root clears the flag before it takes the queue. So a burst of posts to
// a thread that has not yet woken costs one write, and none is lost.
//
// Lifetimes: the inbox lives as long as anyone holds it; the thread's part
// (the descriptor watch and the tasks) ends with the thread. From then on the
// inbox is closed: the items still queued are dropped (destroyed, not run),
// later posts return false and drop theirs, and every dropped item is
// counted. Dropped items are destroyed on the thread that drops them (the
// ending thread, or the poster). posted = run + dropped + length at all
// times.
//
// Note that a thread with an inbox always has a descriptor watched, so its
// `Platform::doEventLoop()` no longer returns for want of work: stop it with
// `Platform::stopEventLoop()` (from inside) or `stopEventLoop(inbox)`.
#pragma once

#include <Velik/TaskPriority.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Velik {

namespace Impl {
class InboxReceiver;
class InboxTask;
}  // namespace Impl

// The shared, thread-safe end of a root's inbox. Obtained from `inbox()`;
// every member may be called from any thread.
class Inbox {
  public:
    using Work = std::function<void()>;

    // One queued item.
    struct Item {
        TaskPriority priority;
        std::string name;
        Work work;
    };

    Inbox(const Inbox&) = delete;
    Inbox& operator=(const Inbox&) = delete;
    // Drops whatever is still queued; closes the eventfd.
    ~Inbox();

    // The name of the root it delivers to.
    const std::string& rootName() const { return rootName_; }
    // True once the root's thread has ended.
    bool closed() const;

    // Items posted, including those refused because the inbox was closed.
    std::uint64_t postedCount() const { return posted_.load(std::memory_order_relaxed); }
    // Items that have started to run.
    std::uint64_t runCount() const { return run_.load(std::memory_order_relaxed); }
    // Items destroyed without running.
    std::uint64_t droppedCount() const { return dropped_.load(std::memory_order_relaxed); }
    // Items posted and neither run nor dropped yet: waiting in the queue, or
    // handed to their task and waiting for its run.
    std::uint64_t length() const;
    // The largest `length()` seen by a post.
    std::uint64_t highWaterMark() const { return highWater_.load(std::memory_order_relaxed); }
    // Writes made to the eventfd (wake-ups sent).
    std::uint64_t wakeUpCount() const { return wakeUps_.load(std::memory_order_relaxed); }

    // Queues `work` to run as task `name` at `priority` on the root, waking
    // the root's thread if it has no wake-up pending. False, and `work`
    // destroyed here, when the inbox is closed.
    bool push(TaskPriority priority, std::string_view name, Work work);

  private:
    friend class Impl::InboxReceiver;
    friend class Impl::InboxTask;

    Inbox(std::string rootName, int eventFd);

    // Receiver side, on the root's thread.
    int eventFd() const { return eventFd_; }
    // Clears the wake-up flag, then swaps the queue with `batch` (which must
    // be empty; its capacity is reused).
    void takeAll(std::vector<Item>& batch);
    void runInc() {
        run_.store(run_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    void droppedAdd(std::uint64_t count) { dropped_.fetch_add(count, std::memory_order_relaxed); }
    // Refuses later posts and drops what is queued.
    void close();

    const std::string rootName_;
    const int eventFd_;
    std::atomic<bool> wakePending_{false};
    mutable std::mutex mutex_;
    std::vector<Item> queue_;  // under `mutex_`
    bool closed_ = false;      // under `mutex_`
    std::atomic<std::uint64_t> posted_{0};
    std::atomic<std::uint64_t> run_{0};
    std::atomic<std::uint64_t> dropped_{0};
    std::atomic<std::uint64_t> highWater_{0};
    std::atomic<std::uint64_t> wakeUps_{0};
};

// The calling thread's inbox, made on first use together with the thread's
// root (`schedulerRootVelik()`), its eventfd and the watch on it, all on the
// thread's platform. The thread's part ends, and the inbox closes, when the
// thread ends.
std::shared_ptr<Inbox> inbox();

// Closes the calling thread's inbox now, as the end of the thread would:
// its tasks go, what is queued is dropped, and the loop has its descriptor
// no more. A later `inbox()` makes a new one. Nothing without an inbox.
void closeInbox();

// The calling thread's inbox if it has one, else null; never makes one.
std::shared_ptr<Inbox> existingInbox();

// Every inbox whose thread is still running, oldest first. Any thread.
std::vector<std::shared_ptr<Inbox>> liveInboxes();

// Runs `work` on `target`'s root as (or in) the task `name` at `priority`;
// see above. Any thread. False when `target` is null or closed: `work` is
// then destroyed by this call without running (and counted dropped).
bool post(const std::shared_ptr<Inbox>& target, TaskPriority priority, std::string_view name,
          std::function<void()> work);

// The same, and once `work` has returned, posts `completion` back to the
// inbox of the calling thread (`inbox()`, which this call makes if needed),
// under the same name and priority. Not for threads without a root loop.
// The completion is dropped with `work` when `target` refuses or drops it,
// is not posted when `work` throws, and is dropped when the caller's thread
// has ended by then.
bool post(const std::shared_ptr<Inbox>& target, TaskPriority priority, std::string_view name,
          std::function<void()> work, std::function<void()> completion);

// Posts `Platform::stopEventLoop()` to `target` at absolute priority, as
// the task "stopEventLoop": the target thread's loop returns after the runs
// in progress when the stop is reached. False when `target` is closed.
bool stopEventLoop(const std::shared_ptr<Inbox>& target);

}  // namespace Velik
