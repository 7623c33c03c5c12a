#include "Kiv/ActivityLock.h"

#include <cerrno>

#include "Kiv/Exception.h"

namespace Kiv {

ActivityLock::ActivityLock() {
    // An error-checking mutex reports re-locking by its owner (EDEADLK) and
    // unlocking by a non-owner (EPERM), which is exactly the contract.
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    const int error = pthread_mutex_init(&mutex_, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (error != 0) {
        throw LockException("ActivityLock: cannot create the mutex", error);
    }
}

ActivityLock::~ActivityLock() {
    pthread_mutex_destroy(&mutex_);
}

int ActivityLock::lock() noexcept {
    return pthread_mutex_lock(&mutex_);
}

int ActivityLock::unlock() noexcept {
    return pthread_mutex_unlock(&mutex_);
}

}  // namespace Kiv
