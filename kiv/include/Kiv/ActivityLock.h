// The activity lock: the framework's one process-wide lock.
//
// Threads other than the main loop's take it before touching state the loop
// shares with them. It is not recursive, but it detects re-locking: `lock()`
// by the thread that already holds it returns `EDEADLK` instead of blocking
// forever, so callers can treat "already mine" as success and simply not
// unlock on that path.
#pragma once

#include <pthread.h>

namespace Kiv {

class ActivityLock {
  public:
    ActivityLock();
    ~ActivityLock();
    ActivityLock(const ActivityLock&) = delete;
    ActivityLock& operator=(const ActivityLock&) = delete;

    // Blocks until the lock is taken by the calling thread and returns 0.
    // Returns `EDEADLK` at once, taking nothing, when the calling thread
    // already holds it. Any other non-zero result is an error of the
    // underlying mutex.
    int lock() noexcept;

    // Releases the lock held by the calling thread and returns 0; returns
    // `EPERM`, releasing nothing, when the calling thread does not hold it.
    int unlock() noexcept;

  private:
    pthread_mutex_t mutex_;
};

}  // namespace Kiv
