#include "Velik/Locking.h"

#include "Velik/Assert.h"
#include "Velik/Thread.h"

#include <pthread.h>

namespace Velik::Locking {

namespace {

const std::thread::id noThread{};

}  // namespace

void Lock::lock() {
    mutex_.lock();
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

bool Lock::try_lock() {
    if (!mutex_.try_lock()) {
        return false;
    }
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    return true;
}

void Lock::unlock() {
    if (!owns_lock()) [[unlikely]] {
        // Reported with the location users know this check by.
        Impl::assertFailed(VELIK_SOURCE_NAME, 32, true, "unlock", "Lock",
                           "attempting to release a lock that is not currently held, owner:{} "
                           "me:{}",
                           toThreadIdString(owner()), toThreadIdString(std::this_thread::get_id()));
    }
    owner_.store(noThread, std::memory_order_relaxed);
    mutex_.unlock();
}

void RecursiveLock::lock() {
    mutex_.lock();
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

bool RecursiveLock::try_lock() {
    if (!mutex_.try_lock()) {
        return false;
    }
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    return true;
}

unsigned RecursiveLock::lockCount() const {
    // The depth the system mutex keeps; another thread may change it, so it
    // is read as a single relaxed load.
    auto& count = const_cast<std::recursive_mutex&>(mutex_).native_handle()->__data.__count;
    return std::atomic_ref(count).load(std::memory_order_relaxed);
}

void RecursiveLock::unlock() {
    const unsigned count = lockCount();
    if (!owns_lock() || count < 1) [[unlikely]] {
        Impl::assertFailed(VELIK_SOURCE_NAME, 64, true, "unlock", "RecursiveLock",
                           "attempting to release a lock that is not currently held, owner:{} "
                           "me:{} lockCount:{}",
                           toThreadIdString(owner()), toThreadIdString(std::this_thread::get_id()),
                           count);
    }
    if (count == 1) {
        owner_.store(noThread, std::memory_order_relaxed);
    }
    mutex_.unlock();
}

ConditionalGuard::ConditionalGuard(Lock& lock) : lock_(lock) {
    lock_.lock();
}

ConditionalGuard::~ConditionalGuard() {
    if (release_ && lock_.owns_lock()) {
        lock_.unlock();
    }
}

}  // namespace Velik::Locking
