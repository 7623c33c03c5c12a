#include "Velik/PlatformSelection.h"

#include "Velik/Assert.h"
#include "Velik/KivPlatform.h"
#include "Velik/LibeventFactory.h"
#include "Velik/Thread.h"

#include <Kiv/ActivityManager.h>
#include <Kiv/System.h>

namespace Velik::Platform {

namespace {

Kiv::ActivityManagerConfig* kivConfig() {
    return Kiv::activityManager()->config();
}

Kiv::Clock* kivClock() {
    return kivConfig()->clock();
}

// Virtual time belongs to the framework; a libevent thread has its own
// switch (`setLeFastForward`). The text predates the test it names and is
// kept as users know it.
void assertFrameworkFastForward(const char* function, int line) {
    if (hasThreadLocalSingletons()) [[unlikely]] {
        DebugStream stream;
        stream << "ThreadLocal fastForward invoked from non-main thread";
        debugAndThrowAssertException(*VELIK_DEFAULT_HANDLE, 0, stream, "Platform", function, line);
    }
}

}  // namespace

std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler) {
    if (hasThreadLocalSingletons()) {
        return getLeFdControl(handler);
    }
    return std::make_shared<KivVelik::FileDescriptor>(handler,
                                                      Kiv::FileDescriptor::create("PlatformFd"));
}

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler) {
    return getTimerControl(handler, eventPriorityDefault);
}

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler, EventPriority priority) {
    if (hasThreadLocalSingletons()) {
        return getLeTimerControl(handler, priority);
    }
    return std::make_shared<KivVelik::ClockTimer>(handler, kivClock());
}

std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler) {
    if (hasThreadLocalSingletons()) {
        return getLeCallbackControl(handler);
    }
    return std::make_shared<KivVelik::Callback>(handler, kivClock());
}

void doEventLoop() {
    if (hasThreadLocalSingletons()) {
        doLeEventLoop();
        return;
    }
    Kiv::System::doRun();
}

void doEventLoop(double seconds) {
    if (hasThreadLocalSingletons()) {
        doLeEventLoop(seconds);
        return;
    }
    kivConfig()->executionTimeIs(seconds);
    Kiv::System::doRun();
}

void doEventLoopInWaitfor(double maxTimeout) {
    if (hasThreadLocalSingletons()) {
        doLeEventLoopInWaitfor(maxTimeout);
        return;
    }
    doEventLoop(maxTimeout);
}

void stopEventLoop() {
    if (hasThreadLocalSingletons()) {
        stopLeEventLoop();
        return;
    }
    Kiv::activityManager()->mainLoop()->stop();
}

bool eventLoopRunning() {
    if (hasThreadLocalSingletons()) {
        return leEventLoopRunning();
    }
    return Kiv::activityManager()->mainLoop()->running();
}

bool fastForward() {
    assertFrameworkFastForward(__func__, __LINE__);
    return kivConfig()->virtualTime();
}

void setFastForward(bool enabled) {
    assertFrameworkFastForward(__func__, __LINE__);
    Kiv::ActivityManagerConfig* config = kivConfig();
    if (config->virtualTime() == enabled) {
        return;
    }
    config->virtualTimeIs(enabled);
    for (FastForwardChangeNotifier notifier : fastForwardChangeNotifiers()) {
        notifier();
    }
}

bool releaseMode() {
    return false;
}

}  // namespace Velik::Platform
