#include "Velik/TaskSchedulerRoot.h"

#include "Velik/Assert.h"
#include "Velik/Exception.h"
#include "Velik/Fmtrace.h"
#include "Velik/PlatformSelection.h"
#include "Velik/TaskSchedulerHistory.h"
#include "Velik/Thread.h"
#include "Velik/TimerWheel.h"

#include "Kiv/ActivityManager.h"
#include "Kiv/Clock.h"

#include <unistd.h>

#include <cstdlib>

namespace Velik {

namespace {

// The root's deferred-callback control on the calling thread's platform.
std::shared_ptr<Platform::CallbackControl> platformCallbackControl(
    Platform::CallbackHandler* handler) {
    return Platform::getCallbackControl(handler);
}

// Read on every run of the main thread's root; the activity manager is never
// destroyed, so its settings may be kept by address.
bool frameworkVirtualTime() {
    static Kiv::ActivityManagerConfig* const config = Kiv::activityManager()->config();
    return config->virtualTime();
}

unsigned long threadIdValue(pthread_t id) {
    return static_cast<unsigned long>(id);
}

}  // namespace

TaskSchedulerRoot::TaskSchedulerRoot(std::string_view name)
    : TaskSchedulerRoot(name, platformCallbackControl) {}

TaskSchedulerRoot::TaskSchedulerRoot(std::string_view name, const CallbackControlFactory& factory)
    : TaskScheduler(name, this, std::make_shared<TaskSchedulerHistory>(historyCapacityInitial)),
      callbackControl_(factory(this)),
      timerWheel_(getTimerWheelForTaskScheduler(Platform::eventPriorityDefault)),
      threadId_(pthread_self()),
      pid_(getpid()) {
    if (pthread_getname_np(threadId_, threadName_, sizeof(threadName_)) != 0) {
        threadName_[0] = '\0';
    }
    followVirtualTime_ = isMainThread();
    runPublication_ = std::make_shared<Impl::RunPublication>(std::string(name), Velik::gettid(),
                                                             std::string(threadName_));
    Impl::publishedRootRegister(runPublication_);
    registerScheduler(this);
    if (followVirtualTime_) {
        virtualTimeIs(frameworkVirtualTime());
    }
}

TaskSchedulerRoot::~TaskSchedulerRoot() {
    runPublication_->retiredIs();
    Impl::publishedRootUnregister(runPublication_.get());
    unregisterScheduler(this);
}

// --- Scheduling ---

void TaskSchedulerRoot::requestSchedulerRun() {
    if (suspended_) {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8,
                    "{} ignore requestSchedulerRun, scheduler is suspended", schedulerName());
        return;
    }
    callbackControl_->requestCallback();
}

void TaskSchedulerRoot::callback() {
    handleSchedulerRun();
}

void TaskSchedulerRoot::handleSchedulerRun() {
    // On the framework's loop the pass's own reading starts the run: one
    // clock read less per run. Elsewhere (libevent, a test clock, a call
    // from outside a delivery) the run reads the clock itself.
    const std::int64_t passReading = Kiv::Clock::takePassReading();
    bool fresh = passReading != 0 && !Impl::taskSteadyTestClock;
    if (followVirtualTime_) {
        bool frameworkFlag = frameworkVirtualTime();
        if (frameworkFlag != virtualTime_) {
            virtualTimeIs(frameworkFlag);
            fresh = false;  // its history event must not postdate the run's start
        }
    }
    if (fresh) {
        handleSchedulerRunAt(TaskTimePoint(TaskTimeDuration(passReading)));
    } else {
        TaskScheduler::handleSchedulerRun();
    }
}

// --- The thread's schedulers ---

void TaskSchedulerRoot::registerScheduler(TaskScheduler* scheduler) {
    bool inserted = schedulers_.insert(scheduler).second;
    VELIK_CLASS_ASSERT(inserted, "insert failed for {}", scheduler->schedulerName());
}

void TaskSchedulerRoot::unregisterScheduler(TaskScheduler* scheduler) {
    bool erased = schedulers_.erase(scheduler) == 1;
    VELIK_CLASS_ASSERT(erased, "delete failed for {}", scheduler->schedulerName());
}

std::size_t TaskSchedulerRoot::totalRegisteredTaskCount() const {
    std::size_t total = 0;
    for (const TaskScheduler* scheduler : schedulers_) {
        total += scheduler->tasks().size();
    }
    return total;
}

std::size_t TaskSchedulerRoot::taskGroupCount() const {
    VELIK_CLASS_ASSERT(!schedulers_.empty(), "{}", "no schedulers registered");
    return schedulers_.size() - 1;
}

std::shared_ptr<TaskScheduler> TaskSchedulerRoot::findSchedulerForTest(std::string_view name) {
    for (TaskScheduler* scheduler : schedulers_) {
        if (scheduler->schedulerName().view() == name) {
            return scheduler->shared_from_this();
        }
    }
    return nullptr;
}

std::shared_ptr<const TaskScheduler> TaskSchedulerRoot::findSchedulerForTest(
    std::string_view name) const {
    return const_cast<TaskSchedulerRoot*>(this)->findSchedulerForTest(name);
}

// --- Thread-wide switches ---

void TaskSchedulerRoot::suspendedIs(bool suspended) {
    if (suspended == suspended_) {
        return;
    }
    suspended_ = suspended;
    TaskTimePoint now = taskSteadyNow();
    if (suspended) {
        recordHistory(now, TaskSchedulerEventType::schedulerSuspended);
    } else {
        recordHistory(now, TaskSchedulerEventType::schedulerUnsuspended);
        requestSchedulerRunAndRecord(now);
    }
}

void TaskSchedulerRoot::sanityCheckOtherThread() const {
    if (threadSanityDisabled_ || auxThreadCount() != 0) {
        return;
    }
    const pthread_t self = pthread_self();
    const pid_t currentPid = getpid();
    if (currentPid != pid_) {  // a forked child inherits the root
        return;
    }
    // Reported under the public entry's name.
    Impl::assertFailed(VELIK_SOURCE_NAME, __LINE__, true, "sanityCheckCurrentRunningThread",
                       traceClassName,
                       "Executing in wrong thread {}({}) pid {} scheduler belongs to thread "
                       "{}({}) pid {}",
                       threadIdValue(self), currentThreadName(), currentPid,
                       threadIdValue(threadId_), threadName_, pid_);
}

void TaskSchedulerRoot::threadSanityDisabledIs(bool disabled) {
    if (disabled == threadSanityDisabled_) {
        return;
    }
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 1, "{} {}able thread sanity checking", schedulerName(),
                disabled ? "dis" : "en");
    threadSanityDisabled_ = disabled;
}

std::string TaskSchedulerRoot::currentThreadName() {
    return Velik::threadName();
}

void TaskSchedulerRoot::virtualTimeIs(bool virtualTime) {
    if (virtualTime == virtualTime_) {
        return;
    }
    virtualTime_ = virtualTime;
    recordHistory(taskSteadyNow(), virtualTime ? TaskSchedulerEventType::schedulerVirtualTimeOn
                                               : TaskSchedulerEventType::schedulerVirtualTimeOff);
    taskShouldYieldModeReevaluate();
}

void TaskSchedulerRoot::taskTestYieldRatioIs(std::uint8_t ratio) {
    if (ratio == taskTestYieldRatio_) {
        return;
    }
    taskTestYieldRatio_ = ratio;
    recordHistory(taskSteadyNow(), ratio ? TaskSchedulerEventType::schedulerTestYieldRatioOn
                                         : TaskSchedulerEventType::schedulerTestYieldRatioOff);
    taskShouldYieldModeReevaluate();
}

void TaskSchedulerRoot::taskShouldYieldModeReevaluate() {
    for (TaskScheduler* scheduler : schedulers_) {
        for (TaskImpl& task : scheduler->tasks()) {
            task.taskShouldYieldModeReevaluate();
        }
    }
}

unsigned TaskSchedulerRoot::randomPercent() {
    // 0..99, and 100 for draws of 2,147,483,600 and more: kept as it is.
    return static_cast<unsigned>(rand_r(&randomSeed_)) / 21474836u;
}

void TaskSchedulerRoot::doUpdateSchedulerLatency() {
    checkSchedulerLatency();
    lastRunRequestTimeIs(taskSteadyNow());
}

// --- History ---

std::uint32_t TaskSchedulerRoot::historyEntryCount() const {
    return history()->capacity();
}

void TaskSchedulerRoot::historyEntryCountIs(std::uint32_t count) {
    history()->capacityIs(count);
}

void TaskSchedulerRoot::clearHistory() {
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 2, "{} history cleared", schedulerName());
    history()->clear();
}

void TaskSchedulerRoot::historyRenderTextForDebug(std::ostream& stream) const {
    history()->renderTextForDebug(stream);
}

std::string TaskSchedulerRoot::historyRenderTextForDebugToString() const {
    return history()->renderTextForDebugToString();
}

void TaskSchedulerRoot::historyRenderTextForDebugStdErr() const {
    history()->renderTextForDebugStdErr();
}

void TaskSchedulerRoot::historyRenderTextForDebug(int fd) const {
    history()->renderTextForDebug(fd);
}

// --- Creation ---

std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRootIs(std::string_view name) {
    return std::make_shared<TaskSchedulerRoot>(name);
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootVelikNonShared(std::string_view name) {
    return TaskSchedulerRootIs(name);
}

namespace {

// The name the thread's root is to take, when one was given before it was made.
thread_local std::string rootNameWanted;
thread_local bool rootMade = false;

std::string rootNameForThisThread() {
    if (!rootNameWanted.empty()) {
        return rootNameWanted;
    }
    return isMainThread() ? std::string("main")
                          : fmt::format("thread:{}", threadIdValue(pthread_self()));
}

}  // namespace

void schedulerRootVelikNameIs(std::string_view name) {
    if (rootMade) {
        const std::string_view current = schedulerRootVelik()->schedulerName().view();
        if (current != name) {
            RuntimeException::throwException(
                fmt::format("The thread's root is already named {}", current));
        }
        return;
    }
    rootNameWanted = name;
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootVelik() {
    // Thread-local objects die in reverse order of construction, and the root
    // must die first: before the thread's string cache, which holds its
    // names, and before the thread's event base, which its controls are on.
    // The holder is therefore made by its initialiser, whose construction
    // completes only after everything the root's constructor made.
    ConstStringCache::forThisThread();
    static thread_local const std::shared_ptr<TaskSchedulerRoot> root =
        TaskSchedulerRootIs(rootNameForThisThread());
    rootMade = true;
    return root;
}

}  // namespace Velik
