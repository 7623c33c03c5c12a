#include "Velik/KivActivityLock.h"

#include <Kiv/ActivityLock.h>
#include <Kiv/ActivityManager.h>
#include <Kiv/Exception.h>

#include <cerrno>

namespace KivVelik {

ActivityLock::ActivityLock() : ActivityLock(*Kiv::activityManager()->activityLock()) {}

int ActivityLock::lock() {
    int rc = lock_.lock();
    if (rc == EDEADLK) {
        return rc;
    }
    if (rc != 0) {
        throw Kiv::LockException("activity lock", rc);
    }
    owns_ = true;
    return 0;
}

void ActivityLock::unlock() {
    if (owns_) {
        owns_ = false;
        lock_.unlock();
    }
}

}  // namespace KivVelik
