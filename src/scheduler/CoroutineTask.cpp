#include "Velik/CoroutineTask.h"

#include "Velik/Assert.h"
#include "Velik/Exception.h"
#include "Velik/Fmtrace.h"
#include "Velik/PlatformSelection.h"
#include "Velik/TaskSchedulerRoot.h"
#include "Velik/Time.h"

#include <fmt/format.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <new>

namespace Velik {

namespace {

void* defaultAllocate(std::size_t size) {
    return ::operator new(size);
}

void defaultDeallocate(void* block, std::size_t size) noexcept {
    ::operator delete(block, size);
}

CoroutineAllocator allocatorInForce{&defaultAllocate, &defaultDeallocate};

constinit thread_local Impl::CoroutineSpawn* spawnInProgress = nullptr;

// The name under which moves are posted to a root's inbox.
constexpr std::string_view moveTaskName = "moveTo";

}  // namespace

const CoroutineAllocator& coroutineAllocator() {
    return allocatorInForce;
}

void coroutineAllocatorIs(const CoroutineAllocator& allocator) {
    allocatorInForce = allocator.allocate && allocator.deallocate
                           ? allocator
                           : CoroutineAllocator{&defaultAllocate, &defaultDeallocate};
}

const char* toStrep(CoroutineWait wait) {
    switch (wait) {
        case CoroutineWait::ready:
            return "ready";
        case CoroutineWait::timer:
            return "timer";
        case CoroutineWait::readable:
            return "readable";
        case CoroutineWait::writable:
            return "writable";
        case CoroutineWait::task:
            return "task";
        case CoroutineWait::all:
            return "all";
        case CoroutineWait::moved:
            return "moved";
        case CoroutineWait::done:
            return "done";
    }
    return "unknown";
}

SleepFor sleepFor(TaskTimeDuration delay) {
    if (delay == TaskTimeDuration::max()) {
        return {std::numeric_limits<double>::infinity()};
    }
    return {static_cast<double>(delay.count()) / 1e9};
}

namespace Impl {

// --- Spawning ---

CoroutineSpawnScope::CoroutineSpawnScope(CoroutineSpawn& spawn) : outer_(spawnInProgress) {
    spawnInProgress = &spawn;
}

CoroutineSpawnScope::~CoroutineSpawnScope() {
    spawnInProgress = outer_;
}

CoroutineSpawn& coroutineSpawnForFrame() {
    VELIK_ASSERT(spawnInProgress != nullptr,
                 "a Velik::Co coroutine runs only as a task: start it with Velik::spawn");
    VELIK_ASSERT(spawnInProgress->task == nullptr,
                 "Velik::spawn runs one coroutine: {} made a second one", spawnInProgress->name);
    return *spawnInProgress;
}

CoroutineSpawn& coroutineSpawnForPromise() {
    VELIK_ASSERT(spawnInProgress != nullptr && spawnInProgress->task != nullptr,
                 "a Velik::Co coroutine frame was made outside Velik::spawn");
    return *spawnInProgress;
}

// --- Awaiting other tasks ---

CoroutineWaiter::~CoroutineWaiter() {
    if (!awaited) {
        return;
    }
    (prev ? prev->next : awaited->awaiters_) = next;
    if (next) {
        next->prev = prev;
    }
}

void CoroutinePromiseBase::unhandled_exception() const noexcept {
    task_->exceptionIs(std::current_exception());
}

// --- Moving between threads ---

struct CoroutineHop {
    CoroutineHop(std::coroutine_handle<> frame, std::weak_ptr<const void> block,
                 std::shared_ptr<Inbox> target, TaskPriority priority, std::string name)
        : frame(frame),
          block(std::move(block)),
          target(std::move(target)),
          priority(priority),
          name(std::move(name)) {}
    CoroutineHop(const CoroutineHop&) = delete;
    CoroutineHop& operator=(const CoroutineHop&) = delete;
    // Nobody claimed the frame: the target dropped the move, and no task
    // stays behind to cancel it. The frame goes with it.
    ~CoroutineHop() {
        if (claim()) {
            frame.destroy();
        }
    }

    // True for the first caller only.
    bool claim() { return !claimed.exchange(true, std::memory_order_acq_rel); }

    // On the target thread: the frame continues as a task of this root.
    void arrive() {
        if (!claim()) {
            return;  // cancelled by the task it left
        }
        auto task = std::make_shared<CoroutineTask<void>>(CoroutineSpawnKey{}, schedulerRootVelik(),
                                                          priority, name);
        task->adoptFrame(frame);
        task->frameBlock_ = block;
        std::coroutine_handle<CoroutinePromise<void>>::from_address(frame.address())
            .promise()
            .taskIs(task.get());
        task->self_ = task;
        task->scheduleTask();
    }

    std::atomic<bool> claimed{false};
    const std::coroutine_handle<> frame;
    // Holds the memory the frame lives in, whatever becomes of the tasks.
    const std::weak_ptr<const void> block;
    const std::shared_ptr<Inbox> target;
    const TaskPriority priority;
    const std::string name;
};

void SleepAwaiter::await_suspend(std::coroutine_handle<>) const {
    task->sleep(value, absolute);
}

void FdAwaiter::await_suspend(std::coroutine_handle<>) const {
    task->watchFd(wait);
}

bool MoveAwaiter::await_suspend(std::coroutine_handle<> frame) {
    // Once posted, the frame may already run on the target: this awaiter
    // lives in it, so it is only touched when the move was refused.
    const bool moved = task->moveFrameTo(target, frame);
    if (!moved) {
        refused = true;
    }
    return moved;
}

void MoveAwaiter::await_resume() const {
    if (refused) {
        RuntimeException::throwException(
            fmt::format("moveTo: the inbox of {} is closed", target ? target->rootName() : "?"));
    }
}

}  // namespace Impl

// --- The task ---

CoroutineTaskBase::CoroutineTaskBase(std::shared_ptr<TaskScheduler> scheduler,
                                     TaskPriority priority, std::string_view name)
    : Task(std::move(scheduler), priority, name) {}

CoroutineTaskBase::~CoroutineTaskBase() {
    stopWaiting();
    if (hop_ && cancelsMove_ && hop_->claim()) {
        hop_->frame.destroy();  // the move had not arrived: it never will
    }
    if (frame_) {
        // Runs the destructors of the suspended awaiters, which leave the
        // lists of the tasks they await.
        std::exchange(frame_, nullptr).destroy();
    }
}

void CoroutineTaskBase::taskExecute() {
    if (!frame_) {
        return;  // ended or moved while queued
    }
    wait_ = CoroutineWait::ready;
    frame_.resume();
    if (readArmedFd_ >= 0 && !(wait_ == CoroutineWait::readable && detail_.fd == readArmedFd_)) {
        // The body has not waited on that descriptor again: stop watching it
        // before the body may close it (and before a report nobody awaits).
        disarm();
    }
    if (frame_ && frame_.done()) {
        finish();
    }
}

void CoroutineTaskBase::finish() {
    std::exchange(frame_, nullptr).destroy();
    wait_ = CoroutineWait::done;
    const bool awaited = awaiters_ != nullptr;
    wakeAwaiters();
    // The scheduler holds the task through the run: letting go of itself
    // here cannot free it under our feet.
    self_.reset();
    if (exception_ && !awaited) {
        std::rethrow_exception(exception_);
    }
}

void CoroutineTaskBase::checkResult() const {
    VELIK_CLASS_ASSERT(coroutineDone(), "{}: result asked while the body waits on {}",
                       taskDisplayName(), toStrep(wait_));
    if (exception_) {
        std::rethrow_exception(exception_);
    }
}

void CoroutineTaskBase::detach() {
    if (!coroutineDone()) {
        self_ = std::static_pointer_cast<CoroutineTaskBase>(taskOwner());
    }
}

std::string CoroutineTaskBase::coroutineWaitDetail() const {
    switch (wait_) {
        case CoroutineWait::timer:
            return fmt::format("{:.3f}", detail_.expiry);
        case CoroutineWait::readable:
        case CoroutineWait::writable:
            return std::to_string(detail_.fd);
        case CoroutineWait::task:
            return detail_.awaited->taskName().str();
        case CoroutineWait::all:
            return std::to_string(*detail_.remaining);
        case CoroutineWait::moved:
            return hop_ ? hop_->target->rootName() : std::string();
        case CoroutineWait::done:
            return exception_ ? "exception" : "";
        case CoroutineWait::ready:
            break;
    }
    return {};
}

// --- Waiting ---

void CoroutineTaskBase::wake() {
    wait_ = CoroutineWait::ready;
    scheduleTask();
}

void CoroutineTaskBase::sleep(double value, bool absolute) {
    const std::shared_ptr<TimerWheel>& wheel = root()->timerWheel();
    if (absolute) {
        wait_ = CoroutineWait::timer;
        detail_.expiry = value;
        if (std::isinf(value) && value > 0) {
            return;  // never
        }
        setTimeoutAt(wheel, value);
        return;
    }
    if (!(value > 0)) {
        wake();  // zero, negative or not a number: only yields
        return;
    }
    wait_ = CoroutineWait::timer;
    detail_.expiry = std::isinf(value) ? value : Velik::time() + value;
    if (!std::isinf(value)) {
        setTimeout(wheel, value);
    }
}

void CoroutineTaskBase::timeout() {
    wake();
}

void CoroutineTaskBase::watchFd(FdWait wait) {
    wait_ = wait.writable ? CoroutineWait::writable : CoroutineWait::readable;
    detail_.fd = wait.fd;
    if (!wait.writable && readArmedFd_ == wait.fd) {
        return;  // still armed since the last wait: read interest persists
    }
    if (!fdControl_) {
        fdControl_ = Platform::getFdControl(this);
    }
    const bool bound = fdControl_->getFd() == wait.fd;
    if (!bound) {
        fdControl_->delFd();
    }
    fdControl_->setReads(!wait.writable);
    fdControl_->setWrites(wait.writable);
    if (!bound) {
        fdControl_->setFd(wait.fd);
    }
    readArmedFd_ = wait.writable ? -1 : wait.fd;
}

void CoroutineTaskBase::disarm() {
    fdControl_->delFd();
    readArmedFd_ = -1;
}

void CoroutineTaskBase::readFdEvent(int fd) {
    if (wait_ == CoroutineWait::ready) {
        return;  // queued: the data is the body's once it runs
    }
    VELIK_CLASS_ASSERT(wait_ == CoroutineWait::readable && fd == detail_.fd,
                       "{}: readable {} while waiting on {}", taskDisplayName(), fd,
                       toStrep(wait_));
    wake();
}

void CoroutineTaskBase::writeFdEvent(int fd) {
    VELIK_CLASS_ASSERT(wait_ == CoroutineWait::writable && fd == detail_.fd,
                       "{}: writable {} while waiting on {}", taskDisplayName(), fd,
                       toStrep(wait_));
    // One wait, one report: the descriptor may be closed once the body has it.
    disarm();
    wake();
}

void CoroutineTaskBase::awaitedBy(Impl::CoroutineWaiter& node, CoroutineTaskBase* waiter,
                                  std::size_t* remaining) {
    VELIK_CLASS_ASSERT(waiter != this, "{} awaits itself", taskDisplayName());
    sanityCheckCurrentRunningThread();  // awaiter lists are not locked
    node.waiter = waiter;
    node.awaited = this;
    node.remaining = remaining;
    node.prev = nullptr;
    node.next = awaiters_;
    if (awaiters_) {
        awaiters_->prev = &node;
    }
    awaiters_ = &node;
}

void CoroutineTaskBase::waitOnTask(const CoroutineTaskBase* other) {
    wait_ = CoroutineWait::task;
    detail_.awaited = other;
}

void CoroutineTaskBase::waitOnAll(std::size_t* remaining) {
    wait_ = CoroutineWait::all;
    detail_.remaining = remaining;
}

void CoroutineTaskBase::wakeAwaiters() {
    while (Impl::CoroutineWaiter* node = awaiters_) {
        awaiters_ = node->next;
        if (awaiters_) {
            awaiters_->prev = nullptr;
        }
        node->awaited = nullptr;
        node->next = nullptr;
        if (node->remaining && --*node->remaining != 0) {
            continue;
        }
        node->waiter->wake();
    }
}

void CoroutineTaskBase::stopWaiting() {
    if (TimerWheelEvent::state() != TimerWheelState::notLinked) {
        delTimeout(root()->timerWheel());
    }
    if (fdControl_) {
        disarm();
        fdControl_.reset();
    }
}

bool CoroutineTaskBase::moveFrameTo(std::shared_ptr<Inbox> target, std::coroutine_handle<> frame) {
    auto hop = std::make_shared<Impl::CoroutineHop>(frame, frameBlock_, target, taskPriority(),
                                                    taskName().str());
    // Give the frame up before posting: the target may resume it at once.
    frame_ = nullptr;
    if (!post(target, taskPriority(), moveTaskName, [hop] { hop->arrive(); })) {
        hop->claim();  // refused: the frame stays here, and goes on at once
        frame_ = frame;
        return false;
    }
    wait_ = CoroutineWait::moved;
    hop_ = std::move(hop);
    // A task that keeps itself has nobody to cancel the move: the move then
    // owns the frame until it arrives.
    cancelsMove_ = !self_;
    wakeAwaiters();
    self_.reset();
    return true;
}

}  // namespace Velik
