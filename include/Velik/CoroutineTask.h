// Coroutine tasks: a task whose work is written as one straight-line C++20
// coroutine instead of a `taskExecute()` that keeps its place in members.
//
//   Velik::Co<> compact(Velik::Table* table) {
//       co_await Velik::sleepFor(std::chrono::seconds(5));
//       while (table->compactOne()) {
//           co_await Velik::yieldIfDue();  // suspends only when the quantum is used
//       }
//   }
//   auto job = Velik::spawn(root, Velik::TaskPriority::low, "compact", compact, &table);
//
// `spawn` makes a `CoroutineTask` (a `Task`, with a priority, a quantum, a
// name and all of a task's statistics) and schedules it. Each resumption of
// the coroutine is one run of the task: the run starts where the coroutine
// last suspended and ends at its next suspension or its end. So the reports
// and the snapshot show it like any task, run count, latency, violations and
// history included.
//
// Inside the body, `co_await` one of:
//
//   yieldIfDue()          nothing, unless `taskShouldYield()`: then the task
//                         queues itself and the run ends
//   sleepFor(d)           the task's timer on the root's timer wheel, as a
//   sleepUntil(t)         timer task's (virtual time and fast-forward apply);
//                         a delay of zero or less only yields
//   readable(fd)          the descriptor through the platform's `FdControl`
//   writable(fd)          (see "Descriptor watches" below)
//   task                  another coroutine task (a shared pointer) of the
//                         same thread: its result, or its exception rethrown
//   all(a, b, ...)        several at once; rethrows the first exception in
//                         argument order; read results with `result()`
//   moveTo(inbox)         continue on the inbox's thread (see below)
//
// Nothing else can be awaited: every suspension must be one the task knows
// how to end.
//
// Parameters are copied into the coroutine frame; references and a lambda's
// captures are not, so `spawn` takes functions and capture-less lambdas only,
// and the body should take its parameters by value or by pointer to objects
// that outlive it.
//
// Lifetimes. The shared pointer `spawn` returns owns the task; dropping the
// last one cancels it: its timer is stopped, its descriptor watch removed, a
// move in flight turned into a no-op, and the frame destroyed (locals and
// parameters with it) without resuming. `detach()` makes the task keep
// itself until its body ends instead. A task being awaited is kept alive by
// its awaiters.
//
// Errors. An exception that leaves the body is kept in the task. If another
// coroutine awaits the task when the body ends, the exception reaches that
// awaiter (and every later one); if none does, it leaves the run as an
// exception from any `taskExecute()` does: out of the event loop to its
// caller.
//
// Descriptor watches. A wait for writability watches the descriptor for that
// one report. Read interest persists, so a wait for readability stays armed
// from one wait to the next on the same descriptor: a body that reads, then
// waits on the same descriptor again, costs the loop no system call per
// wait. A report while the task is queued is left to the run. The watch ends
// when a run ends without the body waiting for that descriptor's
// readability again (it waits on anything else, or ends), so a body may
// close a descriptor once it no longer waits on it. What it must not do is
// close a descriptor it waited on and, in the same run, wait for readability
// of a new one that took the same number: the watch would still be taken
// for armed, and the closed descriptor's registration is gone.
//
// Moving between threads. `co_await moveTo(inbox)` posts the frame to the
// inbox's root (`Velik::post`, as the task "moveTo" at the task's priority)
// and continues there as a new coroutine task of that root, with the same
// name and priority, that keeps itself until the body ends; from then on
// the runs and statistics are that task's. The task on the first thread
// ends at the move: it waits on `CoroutineWait::moved`, its awaiters
// resume, and its result is empty, which is why only a `Co<void>` may move.
// A move allocates (the posted item and the new task); if the inbox is
// closed, the body stays and the `co_await` throws `RuntimeException`. A
// moved coroutine must end, or move on, before the thread it moved to ends.
//
// Memory: see Velik/CoroutineAllocator.h (one allocation per coroutine).
#pragma once

#include <Velik/CoroutineAllocator.h>
#include <Velik/Inbox.h>
#include <Velik/LambdaTask.h>
#include <Velik/Platform.h>
#include <Velik/Task.h>
#include <Velik/TaskPriority.h>
#include <Velik/TaskScheduler.h>
#include <Velik/TaskTime.h>
#include <Velik/TimerWheel.h>

#include <array>
#include <coroutine>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Velik {

class CoroutineTaskBase;
template <typename T>
class CoroutineTask;
template <typename T = void>
class Co;

// What a coroutine task waits on; `ready` while queued or running.
enum class CoroutineWait : std::uint8_t {
    ready = 0,
    timer = 1,     // detail: the library-clock expiry
    readable = 2,  // detail: the descriptor
    writable = 3,  // detail: the descriptor
    task = 4,      // detail: the awaited task's name
    all = 5,       // detail: how many tasks are still running
    moved = 6,     // detail: the root the body moved to
    done = 7,      // the body ended (detail: "exception" when it threw)
};

// "ready", "timer", "readable", "writable", "task", "all", "moved", "done".
const char* toStrep(CoroutineWait wait);

// --- What the body awaits ---

struct YieldIfDue {};
struct SleepFor {
    double seconds;
};
struct SleepUntil {
    double expiry;
};
struct FdWait {
    int fd;
    bool writable;
};
struct MoveTo {
    std::shared_ptr<Inbox> target;
};
template <std::size_t N>
struct AllOf {
    std::array<std::shared_ptr<CoroutineTaskBase>, N> tasks;
};

// Ends the run, queued to run again, when the quantum is used up.
inline YieldIfDue yieldIfDue() {
    return {};
}
// Resumes after `seconds` (double) or `delay`; never (+infinity, the largest
// duration) waits until the task is destroyed.
inline SleepFor sleepFor(double seconds) {
    return {seconds};
}
SleepFor sleepFor(TaskTimeDuration delay);
// Resumes at the library-clock time `expiry` (`Velik::time()` seconds).
inline SleepUntil sleepUntil(double expiry) {
    return {expiry};
}
// Resumes when `fd` is readable or writable.
inline FdWait readable(int fd) {
    return {fd, false};
}
inline FdWait writable(int fd) {
    return {fd, true};
}
// Continues on `target`'s thread.
inline MoveTo moveTo(std::shared_ptr<Inbox> target) {
    return {std::move(target)};
}
// Resumes when every one of `tasks` has ended.
template <typename... Ts>
AllOf<sizeof...(Ts)> all(const std::shared_ptr<CoroutineTask<Ts>>&... tasks) {
    return {{std::shared_ptr<CoroutineTaskBase>(tasks)...}};
}

namespace Impl {

template <typename T>
class CoroutinePromise;

// What `spawn` hands to the frame's allocation, which makes the task.
struct CoroutineSpawn {
    std::shared_ptr<TaskScheduler> scheduler;
    TaskPriority priority;
    std::string_view name;
    std::shared_ptr<CoroutineTaskBase> task;
};

// Marks the constructors only the library calls.
struct CoroutineSpawnKey {};

// The calling thread's spawn in progress for the length of one call of a
// coroutine function (spawns nest: the outer one is put back).
class CoroutineSpawnScope {
  public:
    explicit CoroutineSpawnScope(CoroutineSpawn& spawn);
    ~CoroutineSpawnScope();
    CoroutineSpawnScope(const CoroutineSpawnScope&) = delete;
    CoroutineSpawnScope& operator=(const CoroutineSpawnScope&) = delete;

  private:
    CoroutineSpawn* outer_;
};

// The spawn whose frame is being made. Asserts when there is none (a
// coroutine function called outside `spawn`) or when it has its frame
// already (a second coroutine made in the same call).
CoroutineSpawn& coroutineSpawnForFrame();
// The same spawn, once its frame exists.
CoroutineSpawn& coroutineSpawnForPromise();

// Allocates the task object and, behind it, room for the frame: one block,
// which the shared pointer's counts live in too.
template <typename U>
class CoroutineBlockAllocator {
  public:
    using value_type = U;
    static constexpr std::size_t frameAlign = __STDCPP_DEFAULT_NEW_ALIGNMENT__;

    CoroutineBlockAllocator(std::size_t frameSize, void** frame)
        : frameSize_(frameSize), frame_(frame) {}
    template <typename V>
    CoroutineBlockAllocator(const CoroutineBlockAllocator<V>& other)
        : frameSize_(other.frameSize_), frame_(other.frame_) {}

    U* allocate(std::size_t n) {
        auto* block = static_cast<std::byte*>(coroutineAllocator().allocate(bytes(n)));
        *frame_ = block + head(n);
        return reinterpret_cast<U*>(block);
    }
    void deallocate(U* block, std::size_t n) noexcept {
        coroutineAllocator().deallocate(block, bytes(n));
    }

    friend bool operator==(const CoroutineBlockAllocator&, const CoroutineBlockAllocator&) {
        return true;
    }

  private:
    template <typename V>
    friend class CoroutineBlockAllocator;

    static std::size_t head(std::size_t n) {
        return (sizeof(U) * n + frameAlign - 1) & ~(frameAlign - 1);
    }
    std::size_t bytes(std::size_t n) const { return head(n) + frameSize_; }

    std::size_t frameSize_;
    void** frame_;  // only while allocating
};

// One coroutine's place in the list of a task it awaits. Lives in the
// awaiter, so in the waiting frame: awaiting allocates nothing.
struct CoroutineWaiter {
    CoroutineWaiter() = default;
    CoroutineWaiter(const CoroutineWaiter&) = delete;
    CoroutineWaiter& operator=(const CoroutineWaiter&) = delete;
    // Leaves the list when the waiting frame is destroyed first.
    ~CoroutineWaiter();

    CoroutineTaskBase* waiter = nullptr;
    CoroutineTaskBase* awaited = nullptr;  // set while linked
    CoroutineWaiter* prev = nullptr;
    CoroutineWaiter* next = nullptr;
    std::size_t* remaining = nullptr;  // a group's count, for `all`
};

// A move in flight: whoever claims it first (the target thread running it,
// or the source task cancelling it) owns the frame.
struct CoroutineHop;

struct YieldAwaiter {
    CoroutineTaskBase* task;
    bool await_ready() const noexcept;
    void await_suspend(std::coroutine_handle<>) const;
    void await_resume() const noexcept {}
};

struct SleepAwaiter {
    CoroutineTaskBase* task;
    double value;
    bool absolute;
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<>) const;
    void await_resume() const noexcept {}
};

struct FdAwaiter {
    CoroutineTaskBase* task;
    FdWait wait;
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<>) const;
    void await_resume() const noexcept {}
};

struct MoveAwaiter {
    CoroutineTaskBase* task;
    std::shared_ptr<Inbox> target;
    bool refused = false;
    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> frame);
    void await_resume() const;
};

template <typename U>
struct TaskAwaiter {
    CoroutineTaskBase* task;
    std::shared_ptr<CoroutineTask<U>> other;  // before `node`: outlives its unlinking
    CoroutineWaiter node;
    bool await_ready() const noexcept;
    void await_suspend(std::coroutine_handle<>);
    U await_resume() const;
};

template <std::size_t N>
struct AllAwaiter {
    CoroutineTaskBase* task;
    std::array<std::shared_ptr<CoroutineTaskBase>, N> others;
    std::array<CoroutineWaiter, N> nodes{};
    std::size_t remaining = 0;
    bool await_ready() const noexcept;
    void await_suspend(std::coroutine_handle<>);
    void await_resume() const;
};

// The parts of the promise that do not depend on the result type.
class CoroutinePromiseBase {
  public:
    std::suspend_always initial_suspend() const noexcept { return {}; }
    std::suspend_always final_suspend() const noexcept { return {}; }
    void unhandled_exception() const noexcept;

    YieldAwaiter await_transform(YieldIfDue) const { return {task_}; }
    SleepAwaiter await_transform(SleepFor s) const { return {task_, s.seconds, false}; }
    SleepAwaiter await_transform(SleepUntil s) const { return {task_, s.expiry, true}; }
    FdAwaiter await_transform(FdWait w) const { return {task_, w}; }
    template <typename U>
    TaskAwaiter<U> await_transform(const std::shared_ptr<CoroutineTask<U>>& other) const {
        return {task_, other, {}};
    }
    template <std::size_t N>
    AllAwaiter<N> await_transform(AllOf<N> group) const {
        return {task_, std::move(group.tasks)};
    }

    // The task the body runs as: the spawned one, or after a move the task
    // on the thread it moved to.
    CoroutineTaskBase* task() const { return task_; }
    void taskIs(CoroutineTaskBase* task) { task_ = task; }

  protected:
    CoroutineTaskBase* task_ = nullptr;
};

// The promise; `operator new` makes the task in the frame's block, and
// `operator delete` leaves the block to the task's last pointer.
template <typename T>
class CoroutinePromise : public CoroutinePromiseBase {
  public:
    static void* operator new(std::size_t frameSize);
    static void operator delete(void*, std::size_t) noexcept {}

    Co<T> get_return_object();
    template <typename V>
    void return_value(V&& value) requires std::is_convertible_v<V&&, T>;

    using CoroutinePromiseBase::await_transform;
    MoveAwaiter await_transform(MoveTo move) const {
        static_assert(std::is_void_v<T>,
                      "only a Co<void> may move to another thread: its result would stay behind");
        return {task_, std::move(move.target)};
    }
};

template <>
class CoroutinePromise<void> : public CoroutinePromiseBase {
  public:
    static void* operator new(std::size_t frameSize);
    static void operator delete(void*, std::size_t) noexcept {}

    Co<void> get_return_object();
    void return_void() const noexcept {}

    using CoroutinePromiseBase::await_transform;
    MoveAwaiter await_transform(MoveTo move) const { return {task_, std::move(move.target)}; }
};

// Makes the spawn's task, of type `TaskType`, with room for the frame.
template <typename TaskType>
void* coroutineFrameFor(std::size_t frameSize) {
    CoroutineSpawn& spawn = coroutineSpawnForFrame();
    void* frame = nullptr;
    spawn.task = std::allocate_shared<TaskType>(
        CoroutineBlockAllocator<TaskType>(frameSize, &frame), CoroutineSpawnKey{},
        std::move(spawn.scheduler), spawn.priority, spawn.name);
    return frame;
}

}  // namespace Impl

// The machinery of every coroutine task; `CoroutineTask<T>` adds the result.
class CoroutineTaskBase : public Task, private TimerWheelEvent, private Platform::FdEventHandler {
  public:
    static constexpr const char* traceClassName = "CoroutineTask";

    // Cancels what the body waits on and destroys its frame unresumed.
    ~CoroutineTaskBase() override;

    // Resumes the body once.
    void taskExecute() final;

    // Whether the body has ended (returned, thrown, or moved away).
    bool coroutineDone() const {
        return wait_ == CoroutineWait::done || wait_ == CoroutineWait::moved;
    }
    CoroutineWait coroutineWait() const { return wait_; }
    // What it waits on, for viewers: "12.500" (timer expiry), "7" (fd),
    // the awaited task's name, "2" (tasks left), the target root's name,
    // "exception" or "" (done).
    std::string coroutineWaitDetail() const;
    // The exception the body ended with, or null.
    const std::exception_ptr& coroutineException() const { return exception_; }
    // The task keeps itself alive until its body ends; dropping the
    // spawner's pointers then no longer cancels it.
    void detach();

  protected:
    CoroutineTaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                      std::string_view name);
    // Rethrows the body's exception; asserts unless the body has ended.
    void checkResult() const;

  private:
    friend struct Impl::CoroutineWaiter;
    friend struct Impl::CoroutineHop;
    friend class Impl::CoroutinePromiseBase;
    template <typename>
    friend class Impl::CoroutinePromise;
    friend struct Impl::YieldAwaiter;
    friend struct Impl::SleepAwaiter;
    friend struct Impl::FdAwaiter;
    friend struct Impl::MoveAwaiter;
    template <typename>
    friend struct Impl::TaskAwaiter;
    template <std::size_t>
    friend struct Impl::AllAwaiter;

    // --- For the promise and the awaiters ---

    // Takes the frame, which lives in this task's block.
    void adoptFrame(std::coroutine_handle<> frame) {
        frame_ = frame;
        frameBlock_ = weak_from_this();
    }
    void exceptionIs(std::exception_ptr exception) { exception_ = std::move(exception); }
    // Waits on nothing any more: queued to run.
    void wake();
    void sleep(double value, bool absolute);
    void watchFd(FdWait wait);
    // Ends the descriptor watch, armed or not.
    void disarm();
    // Links `node` (of the task `waiter`) to this task's awaiters.
    void awaitedBy(Impl::CoroutineWaiter& node, CoroutineTaskBase* waiter, std::size_t* remaining);
    void waitOnTask(const CoroutineTaskBase* other);
    void waitOnAll(std::size_t* remaining);
    // Posts the frame to `target`; false (nothing changed) when it refuses.
    bool moveFrameTo(std::shared_ptr<Inbox> target, std::coroutine_handle<> frame);

    // --- Events ---

    void timeout() override;
    void readFdEvent(int fd) override;
    void writeFdEvent(int fd) override;

    // The body ended: frees the frame, resumes the awaiters, and lets an
    // exception nobody awaits out of the run.
    void finish();
    void wakeAwaiters();
    void stopWaiting();

    std::coroutine_handle<> frame_;  // null once ended or moved away
    CoroutineWait wait_ = CoroutineWait::ready;
    union {
        double expiry;
        int fd;
        const CoroutineTaskBase* awaited;
        std::size_t* remaining;
    } detail_{0.0};
    Impl::CoroutineWaiter* awaiters_ = nullptr;
    std::exception_ptr exception_;
    std::shared_ptr<Platform::FdControl> fdControl_;
    // The descriptor whose read watch stays armed between waits, or -1.
    int readArmedFd_ = -1;
    // Set while a move is in flight, or after it: to cancel or name it.
    std::shared_ptr<Impl::CoroutineHop> hop_;
    // Keeps a detached task, or one the body moved to, until the body ends.
    std::shared_ptr<CoroutineTaskBase> self_;
    // The block the frame lives in: this task's own, or on a task the body
    // moved to, the spawned task's.
    std::weak_ptr<const void> frameBlock_;
    // Whether destroying the task cancels a move in flight.
    bool cancelsMove_ = false;
};

// A coroutine task whose body returns `T`.
template <typename T>
class CoroutineTask final : public CoroutineTaskBase {
  public:
    CoroutineTask(Impl::CoroutineSpawnKey, std::shared_ptr<TaskScheduler> scheduler,
                  TaskPriority priority, std::string_view name)
        : CoroutineTaskBase(std::move(scheduler), priority, name) {}

    // The value the body returned; rethrows its exception; asserts while it
    // still runs.
    const T& result() const {
        checkResult();
        return *value_;
    }

  private:
    template <typename>
    friend class Impl::CoroutinePromise;
    std::optional<T> value_;
};

template <>
class CoroutineTask<void> final : public CoroutineTaskBase {
  public:
    CoroutineTask(Impl::CoroutineSpawnKey, std::shared_ptr<TaskScheduler> scheduler,
                  TaskPriority priority, std::string_view name)
        : CoroutineTaskBase(std::move(scheduler), priority, name) {}

    // Rethrows the body's exception; asserts while it still runs.
    void result() const { checkResult(); }
};

// The return type of a coroutine body that `spawn` runs as a task. It
// carries nothing: the frame belongs to the task.
template <typename T>
class [[nodiscard]] Co {
  public:
    using value_type = T;
    using promise_type = Impl::CoroutinePromise<T>;

  private:
    friend class Impl::CoroutinePromise<T>;
    Co() = default;
};

// A new coroutine task on `scheduler` running `fn(args...)` (a function,
// member function or capture-less lambda returning `Co<T>`), queued for its
// first run.
template <Impl::SchedulerHandle S, typename F, typename... Args>
requires(std::is_empty_v<std::decay_t<F>> || std::is_pointer_v<std::decay_t<F>> ||
         std::is_member_function_pointer_v<std::decay_t<F>> ||
         std::is_function_v<std::remove_reference_t<F>>) auto spawn(S&& scheduler,
                                                                    TaskPriority priority,
                                                                    std::string_view name, F&& fn,
                                                                    Args&&... args) {
    using T = typename std::invoke_result_t<F, Args...>::value_type;
    std::shared_ptr<TaskScheduler> owner;
    if constexpr (std::convertible_to<S, std::shared_ptr<TaskScheduler>>) {
        owner = std::forward<S>(scheduler);
    } else {
        owner = static_cast<TaskScheduler*>(scheduler)->shared_from_this();
    }
    Impl::CoroutineSpawn spawn{std::move(owner), priority, name, nullptr};
    {
        Impl::CoroutineSpawnScope scope(spawn);
        static_cast<void>(std::invoke(std::forward<F>(fn), std::forward<Args>(args)...));
    }
    auto task = std::static_pointer_cast<CoroutineTask<T>>(std::move(spawn.task));
    task->scheduleTask();
    return task;
}

// --- Template definitions ---

namespace Impl {

template <typename T>
void* CoroutinePromise<T>::operator new(std::size_t frameSize) {
    return coroutineFrameFor<CoroutineTask<T>>(frameSize);
}

template <typename T>
Co<T> CoroutinePromise<T>::get_return_object() {
    task_ = coroutineSpawnForPromise().task.get();
    task_->adoptFrame(std::coroutine_handle<CoroutinePromise>::from_promise(*this));
    return Co<T>();
}

template <typename T>
template <typename V>
void CoroutinePromise<T>::return_value(V&& value) requires std::is_convertible_v<V&&, T> {
    static_cast<CoroutineTask<T>*>(task_)->value_.emplace(std::forward<V>(value));
}

inline void* CoroutinePromise<void>::operator new(std::size_t frameSize) {
    return coroutineFrameFor<CoroutineTask<void>>(frameSize);
}

inline Co<void> CoroutinePromise<void>::get_return_object() {
    task_ = coroutineSpawnForPromise().task.get();
    task_->adoptFrame(std::coroutine_handle<CoroutinePromise>::from_promise(*this));
    return Co<void>();
}

inline bool YieldAwaiter::await_ready() const noexcept {
    return !task->taskShouldYield();
}

inline void YieldAwaiter::await_suspend(std::coroutine_handle<>) const {
    task->scheduleTask();
}

template <typename U>
bool TaskAwaiter<U>::await_ready() const noexcept {
    return other->coroutineDone();
}

template <typename U>
void TaskAwaiter<U>::await_suspend(std::coroutine_handle<>) {
    other->awaitedBy(node, task, nullptr);
    task->waitOnTask(other.get());
}

template <typename U>
U TaskAwaiter<U>::await_resume() const {
    if constexpr (std::is_void_v<U>) {
        other->result();
    } else {
        return other->result();
    }
}

template <std::size_t N>
bool AllAwaiter<N>::await_ready() const noexcept {
    for (const auto& other : others) {
        if (!other->coroutineDone()) {
            return false;
        }
    }
    return true;
}

template <std::size_t N>
void AllAwaiter<N>::await_suspend(std::coroutine_handle<>) {
    for (std::size_t i = 0; i < N; ++i) {
        if (!others[i]->coroutineDone()) {
            ++remaining;
            others[i]->awaitedBy(nodes[i], task, &remaining);
        }
    }
    task->waitOnAll(&remaining);
}

template <std::size_t N>
void AllAwaiter<N>::await_resume() const {
    for (const auto& other : others) {
        other->checkResult();
    }
}

}  // namespace Impl

}  // namespace Velik
