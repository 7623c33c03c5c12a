// Locks that know their owner.
//
// The library locks little (the backtrace tracker, the platform lock), but a
// lock it has must catch misuse: releasing a lock the calling thread does not
// hold is a broken invariant and asserts, naming both threads. Both lock
// types meet the standard Lockable requirements, so std::lock_guard and
// std::unique_lock work with them.
//
//   Velik::Locking::Lock lock;
//   {
//       Velik::Locking::ConditionalGuard guard(lock);
//       if (handOver) {
//           guard.releaseIs(false);   // the lock stays held after the scope
//       }
//   }
#pragma once

#include <atomic>
#include <mutex>
#include <thread>

namespace Velik::Locking {

// A non-recursive mutex with its owner.
class Lock {
  public:
    Lock() = default;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    // Blocks until the lock is had, then records the caller as owner. A mutex
    // error is thrown as std::system_error.
    void lock();

    // One attempt: false when the lock is held, else records the owner.
    bool try_lock();

    // Whether the calling thread holds the lock. Exact for that question: a
    // thread that does not hold it never sees its own id as owner.
    bool owns_lock() const { return owner() == std::this_thread::get_id(); }

    // Releases a lock the caller holds; asserts when it does not.
    void unlock();

    // The holder, or the id that names no thread when free.
    std::thread::id owner() const { return owner_.load(std::memory_order_relaxed); }

  private:
    std::mutex mutex_;
    // Written only by the holder; read unlocked by `owns_lock`.
    std::atomic<std::thread::id> owner_{};
};

// As `Lock`, but the holder may lock again; each `lock` needs its `unlock`,
// and the owner is cleared by the outermost one.
class RecursiveLock {
  public:
    RecursiveLock() = default;
    RecursiveLock(const RecursiveLock&) = delete;
    RecursiveLock& operator=(const RecursiveLock&) = delete;

    void lock();
    bool try_lock();
    bool owns_lock() const { return owner() == std::this_thread::get_id(); }

    // Releases one level; asserts when the caller does not hold the lock.
    void unlock();

    std::thread::id owner() const { return owner_.load(std::memory_order_relaxed); }

    // The recursion depth, as the system mutex counts it (0 when free).
    unsigned lockCount() const;

  private:
    std::recursive_mutex mutex_;
    std::atomic<std::thread::id> owner_{};
};

// Locks a `Lock` for its scope, unless told not to release it: a guard whose
// release was cancelled hands the held lock on to later code.
class ConditionalGuard {
  public:
    explicit ConditionalGuard(Lock& lock);
    ConditionalGuard(const ConditionalGuard&) = delete;
    ConditionalGuard& operator=(const ConditionalGuard&) = delete;

    // Unlocks when release is still wanted and the caller holds the lock.
    ~ConditionalGuard();

    // Whether the destructor releases the lock (true at construction).
    void releaseIs(bool release) { release_ = release; }
    bool release() const { return release_; }

  private:
    Lock& lock_;
    bool release_ = true;
};

}  // namespace Velik::Locking
