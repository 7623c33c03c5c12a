#include "Velik/ForkHandler.h"

#include <Velik/Debug.h>
#include <Velik/Errno.h>
#include <Velik/Fmtrace.h>
#include <pthread.h>

#include <cerrno>
#include <cstdio>

namespace Velik::Platform {

namespace {

bool forkedChild = false;

}  // namespace

void handleFork() {
    forkedChild = true;
}

bool isForkedChild() {
    return forkedChild;
}

void forkedChildIs(bool value) {
    forkedChild = value;
}

void setupHandler() {
    int rc = pthread_atfork(nullptr, nullptr, handleFork);
    if (rc != 0) {
        errno = rc;
        VELIK_FTRACE(VELIK_DEFAULT_HANDLE, 0, "Velik failed to register atfork handler, reason: {}",
                     Velik::strerror(errno));
        Fmt::Impl::standardAssertionFailed("false && \"Failed to register Velik atfork handler\"",
                                           VELIK_SOURCE_NAME, __LINE__, __func__);
    }
}

namespace {

[[maybe_unused]] const bool handlerRegistered = (setupHandler(), true);

}  // namespace

}  // namespace Velik::Platform
