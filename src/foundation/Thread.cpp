#include "Velik/Thread.h"

#include "Velik/Assert.h"

#include <Kiv/Ptr.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <sstream>

namespace Velik {

namespace {

// The kernel's limit, terminating NUL included.
constexpr size_t threadNameSize = 16;

thread_local char threadNameCache[threadNameSize] = {};
thread_local bool singletonQueried = false;
thread_local bool threadLocalSingletons = false;

std::atomic<unsigned> auxThreads{0};

}  // namespace

pid_t gettid() {
    return ::gettid();
}

bool isMainThread() {
    return ::gettid() == ::getpid();
}

void threadSafePointerIs(bool threadSafe) {
    Kiv::threadSafePointersIs(threadSafe);
}

bool hasThreadLocalSingletons() {
    singletonQueried = true;
    return threadLocalSingletons;
}

void useThreadLocalSingletons() {
    if (!threadLocalSingletons && singletonQueried) [[unlikely]] {
        // Reported with the location users know this check by.
        Impl::assertFailed(VELIK_SOURCE_NAME, 38, true, "useThreadLocalSingletons", "Velik",
                           "Attempt to change threadLocalSingletons after a global singleton has "
                           "already been created. Please call useThreadLocalSingletons() "
                           "immediately after spawning your thread.");
    }
    threadLocalSingletons = true;
}

const char* threadNameIs(const char* name) {
    if (isMainThread()) {
        // The main thread keeps the name the process was started with.
        return threadName();
    }
    if (int error = pthread_setname_np(pthread_self(), name); error != 0) [[unlikely]] {
        Impl::assertFailed(VELIK_SOURCE_NAME, 95, true, "threadNameIs", "Velik",
                           "pthread_setname_np() failed:{} for name:{}", error, name);
    }
    std::strncpy(threadNameCache, name, threadNameSize);
    threadNameCache[threadNameSize - 1] = '\0';
    return threadNameCache;
}

const char* threadName() {
    if (threadNameCache[0] != '\0') {
        return threadNameCache;
    }
    if (int error = pthread_getname_np(pthread_self(), threadNameCache, threadNameSize); error != 0)
        [[unlikely]] {
        Impl::assertFailed(VELIK_SOURCE_NAME, 75, true, "threadName", "Velik",
                           "pthread_getname_np() failed:{}", error);
    }
    return threadNameCache;
}

std::string toThreadIdString(std::thread::id id) {
    std::ostringstream text;
    text << id;
    return text.str();
}

unsigned auxThreadCount() {
    return auxThreads.load(std::memory_order_relaxed);
}

void auxThreadCountInc() {
    auxThreads.fetch_add(1, std::memory_order_relaxed);
}

void auxThreadCountDec() {
    const unsigned before = auxThreads.fetch_sub(1, std::memory_order_relaxed);
    VELIK_ASSERT(before > 0, "auxThreadCount decremented below zero");
}

}  // namespace Velik
