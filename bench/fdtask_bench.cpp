// Descriptor tasks under echo load, and what timer tasks, descriptor tasks
// and task groups take from the allocator.
//
//   Echo/<platform>/N   N loopback socket pairs (AF_UNIX stream). The client
//                       end of each pair sends a 64-byte message and sends the
//                       next when the echo is back, until the batch's budget
//                       of messages is spent; the server end reads what is
//                       there and writes it back, watching writability
//                       (one-shot) only when a write would block. Two server
//                       kinds take turns batch by batch on the same thread,
//                       each on a set of pairs of its own:
//                         task  a `FileDescriptorTask` per server end
//                         bare  on libevent a bare event per server end
//                               (`event_new`, `event_add`, read and write in
//                               the callback); on the framework the
//                               platform's own `FdControl`
//                       The client ends are `FdControl`s of the platform in
//                       both, so they cost the two sides the same.
//                       Counters: `task_msgs_per_s`, `bare_msgs_per_s` (echoed
//                       messages per second of the thread's CPU time) and
//                       `ratio` = task / bare.
//   Idle/<platform>/N   the task server above, with an idle time-out on the
//                       thread's timer wheel pushed back 30 s per request
//                       and without, batches alternated: `on_msgs_per_s`,
//                       `off_msgs_per_s`, `ratio` = on / off.
//   Memory/<kind>       bytes per object from mallinfo2().uordblks deltas
//                       over 10 thousand objects (malloc's chunk sizes, its
//                       8-byte header included), with every name already
//                       interned (`bytes`) and with a new name per object
//                       (`bytes_new_name`).
//
// The libevent side runs on a worker thread that called
// `useThreadLocalSingletons()`; the framework side on the main thread.
#include "Harness.h"

#include <Velik/FileDescriptorTask.h>
#include <Velik/LibeventFactory.h>
#include <Velik/PlatformSelection.h>
#include <Velik/TaskGroup.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/Thread.h>
#include <Velik/TimerTask.h>
#include <Velik/TimerWheel.h>

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace Velik;
using VelikBench::timed;

constexpr std::size_t messageSize = 64;
constexpr int messagesPerBatch = 10'000;

// Thrown by the client when the batch's last echo is back: the one way out of
// a loop whose descriptors stay watched, the same on both platforms.
struct BatchDone {};

// ------------------------------------------------------------------ server

// Read what is there, write it back; what does not fit waits in `pending`
// for writability.
struct Echo {
    std::string pending;

    // Returns whether writability is wanted.
    bool onReadable(int fd) {
        char buffer[4096];
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0) {
            return !pending.empty();
        }
        if (!pending.empty()) {
            pending.append(buffer, static_cast<std::size_t>(got));
            return true;
        }
        const ssize_t put = write(fd, buffer, static_cast<std::size_t>(got));
        const std::size_t written = put < 0 ? 0 : static_cast<std::size_t>(put);
        pending.assign(buffer + written, static_cast<std::size_t>(got) - written);
        return !pending.empty();
    }
    bool onWritable(int fd) {
        const ssize_t put = write(fd, pending.data(), pending.size());
        if (put > 0) {
            pending.erase(0, static_cast<std::size_t>(put));
        }
        return !pending.empty();
    }
};

class TaskServer : public FileDescriptorTask {
  public:
    TaskServer(std::shared_ptr<TaskScheduler> scheduler, int fd)
        : FileDescriptorTask(std::move(scheduler), TaskPriority::normal, "echo") {
        taskWatchFdIs(fd);
    }
    void taskExecuteReadable() override {
        if (echo_.onReadable(taskWatchFd())) {
            taskWatchWritableIs(true);
        }
    }
    void taskExecuteWritable() override {
        if (echo_.onWritable(taskWatchFd())) {
            taskWatchWritableIs(true);
        }
    }

  private:
    Echo echo_;
};

// A bare libevent event per direction on the thread's base.
class LibeventServer {
  public:
    explicit LibeventServer(int fd)
        : fd_(fd),
          read_(event_new(leEventBase(), fd, EV_READ | EV_PERSIST, onRead, this)),
          write_(event_new(leEventBase(), fd, EV_WRITE, onWrite, this)) {
        event_add(read_, nullptr);
    }
    LibeventServer(const LibeventServer&) = delete;
    LibeventServer& operator=(const LibeventServer&) = delete;
    ~LibeventServer() {
        event_free(read_);
        event_free(write_);
    }

  private:
    static void onRead(evutil_socket_t, short, void* arg) {
        auto* self = static_cast<LibeventServer*>(arg);
        if (self->echo_.onReadable(self->fd_)) {
            event_add(self->write_, nullptr);
        }
    }
    static void onWrite(evutil_socket_t, short, void* arg) {
        auto* self = static_cast<LibeventServer*>(arg);
        if (self->echo_.onWritable(self->fd_)) {
            event_add(self->write_, nullptr);
        }
    }

    int fd_;
    Echo echo_;
    event* read_;
    event* write_;
};

// The framework's own descriptor control, handled in its notification.
class ControlServer : public Platform::FdEventHandler {
  public:
    explicit ControlServer(int fd) {
        control_->setReads(true);
        control_->setFd(fd);
    }
    void readFdEvent(int fd) override {
        if (echo_.onReadable(fd)) {
            control_->setWrites(true);
        }
    }
    void writeFdEvent(int fd) override {
        if (echo_.onWritable(fd)) {
            control_->setWrites(true);
        }
    }

  private:
    Echo echo_;
    std::shared_ptr<Platform::FdControl> control_ = Platform::getFdControl(this);
};

// ------------------------------------------------------------------ client

struct Budget {
    int unsent = 0;
    int outstanding = 0;
    std::uint64_t echoed = 0;
};

// One client end: one message in flight at a time.
class Client : public Platform::FdEventHandler {
  public:
    // Framework controls start with no interest: ask for reads.
    Client(int fd, Budget* budget) : budget_(budget) {
        control_->setReads(true);
        control_->setFd(fd);
    }

    void send() {
        if (budget_->unsent == 0) {
            return;
        }
        --budget_->unsent;
        ++budget_->outstanding;
        static const std::string message(messageSize, 'm');
        if (write(control_->getFd(), message.data(), messageSize) !=
            static_cast<ssize_t>(messageSize)) {
            throw std::runtime_error("client write would block");
        }
    }
    void readFdEvent(int fd) override {
        char buffer[4096];
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0) {
            return;
        }
        received_ += static_cast<std::size_t>(got);
        for (; received_ >= messageSize; received_ -= messageSize) {
            --budget_->outstanding;
            ++budget_->echoed;
            send();
        }
        if (budget_->outstanding == 0) {
            throw BatchDone{};
        }
    }
    void writeFdEvent(int) override {}

  private:
    Budget* budget_;
    std::size_t received_ = 0;
    std::shared_ptr<Platform::FdControl> control_ = Platform::getFdControl(this);
};

// ------------------------------------------------------------------ pairs

struct SocketPairs {
    std::vector<int> clients, servers;

    explicit SocketPairs(int count) {
        for (int i = 0; i < count; ++i) {
            int fds[2];
            if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
                throw std::runtime_error("socketpair failed");
            }
            clients.push_back(fds[0]);
            servers.push_back(fds[1]);
        }
    }
    SocketPairs(const SocketPairs&) = delete;
    SocketPairs& operator=(const SocketPairs&) = delete;
    ~SocketPairs() {
        for (int fd : clients) {
            close(fd);
        }
        for (int fd : servers) {
            close(fd);
        }
    }
};

// N pairs served one way; the servers are dropped before the descriptors
// close.
template <typename Server>
struct EchoSet {
    SocketPairs pairs;
    Budget budget;
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<std::shared_ptr<Server>> servers;

    template <typename MakeServer>
    EchoSet(int count, MakeServer makeServer) : pairs(count) {
        for (int i = 0; i < count; ++i) {
            clients.push_back(std::make_unique<Client>(pairs.clients[i], &budget));
            servers.push_back(makeServer(pairs.servers[i]));
        }
    }
    ~EchoSet() {
        servers.clear();
        clients.clear();
    }

    // Thread CPU nanoseconds of one batch.
    double runBatch() {
        budget.unsent = messagesPerBatch;
        return timed([&] {
            for (auto& client : clients) {
                client->send();
            }
            try {
                Platform::doEventLoop();
            } catch (const BatchDone&) {
            }
        });
    }
};

// Both server kinds of one platform over N pairs each.
struct EchoBench {
    virtual ~EchoBench() = default;
    virtual double taskBatch() = 0;
    virtual double bareBatch() = 0;
};

template <typename Bare>
struct EchoBenchOf : EchoBench {
    EchoSet<TaskServer> task;
    EchoSet<Bare> bare;

    explicit EchoBenchOf(int count)
        : task(count,
               [](int fd) { return std::make_shared<TaskServer>(schedulerRootVelik(), fd); }),
          bare(count, [](int fd) { return std::make_shared<Bare>(fd); }) {}
    double taskBatch() override { return task.runBatch(); }
    double bareBatch() override { return bare.runBatch(); }
};

// ------------------------------------------------------------------ threads

// A thread with thread-local singletons that runs one job at a time.
class LibeventWorker {
  public:
    LibeventWorker() : thread_([this] { serve(); }) {}
    ~LibeventWorker() {
        run([] {}, true);
        thread_.join();
    }

    void run(std::function<void()> job, bool last = false) {
        std::unique_lock guard(mutex_);
        job_ = std::move(job);
        last_ = last;
        wake_.notify_all();
        wake_.wait(guard, [this] { return !job_; });
    }

  private:
    void serve() {
        useThreadLocalSingletons();
        std::unique_lock guard(mutex_);
        for (bool last = false; !last;) {
            wake_.wait(guard, [this] { return static_cast<bool>(job_); });
            job_();
            last = last_;
            job_ = nullptr;
            wake_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::function<void()> job_;
    bool last_ = false;
    std::thread thread_;
};

LibeventWorker& libeventWorker() {
    static LibeventWorker worker;
    return worker;
}

enum class Where { framework, libevent };

void runOn(Where where, const std::function<void()>& job) {
    if (where == Where::framework) {
        job();
    } else {
        libeventWorker().run(job);
    }
}

// The thread's echo bench, rebuilt when the pair count changes.
struct EchoSlot {
    int count = 0;
    std::unique_ptr<EchoBench> bench;
};

EchoSlot& echoSlot() {
    static thread_local EchoSlot slot;
    return slot;
}

EchoBench& echoBench(int count) {
    EchoSlot& slot = echoSlot();
    if (slot.count != count) {
        slot.bench.reset();
        if (hasThreadLocalSingletons()) {
            slot.bench = std::make_unique<EchoBenchOf<LibeventServer>>(count);
        } else {
            slot.bench = std::make_unique<EchoBenchOf<ControlServer>>(count);
        }
        slot.count = count;
    }
    return *slot.bench;
}

void echo(benchmark::State& state, Where where) {
    const int count = static_cast<int>(state.range(0));
    double taskNs = 0, bareNs = 0;
    runOn(where, [&] { echoBench(count); });
    for (auto _ : state) {
        runOn(where, [&] {
            EchoBench& bench = echoBench(count);
            taskNs += bench.taskBatch();
            bareNs += bench.bareBatch();
        });
    }
    const double messages = static_cast<double>(state.iterations()) * messagesPerBatch;
    state.counters["task_msgs_per_s"] = messages / taskNs * 1e9;
    state.counters["bare_msgs_per_s"] = messages / bareNs * 1e9;
    state.counters["ratio"] = bareNs / taskNs;
}

// ------------------------------------------------------------------ idle

// A descriptor task that pushes its idle time-out back by 30 s on every
// request, as a server closing idle connections does.
class IdleServer : public TaskServer, Platform::TimeoutHandler {
  public:
    IdleServer(std::shared_ptr<TaskScheduler> scheduler, int fd)
        : TaskServer(std::move(scheduler), fd) {}
    ~IdleServer() override { idle_->delTimeout(); }
    void taskExecuteReadable() override {
        idle_->setTimeout(30.0);
        TaskServer::taskExecuteReadable();
    }

  private:
    void timeout() override {}

    std::shared_ptr<Platform::TimerControl> idle_ =
        Platform::getTimerControl(this, getTimerWheel());
};

struct IdleSlot {
    int count = 0;
    std::unique_ptr<EchoSet<TaskServer>> off;
    std::unique_ptr<EchoSet<IdleServer>> on;
};

IdleSlot& idleSlot() {
    static thread_local IdleSlot slot;
    return slot;
}

IdleSlot& idleBench(int count) {
    IdleSlot& slot = idleSlot();
    if (slot.count != count) {
        slot.off.reset();
        slot.on.reset();
        slot.off = std::make_unique<EchoSet<TaskServer>>(
            count, [](int fd) { return std::make_shared<TaskServer>(schedulerRootVelik(), fd); });
        slot.on = std::make_unique<EchoSet<IdleServer>>(
            count, [](int fd) { return std::make_shared<IdleServer>(schedulerRootVelik(), fd); });
        slot.count = count;
    }
    return slot;
}

// Descriptor-task echo with an idle time-out re-armed per request (`on`)
// and without (`off`), batches alternated: `on_msgs_per_s`,
// `off_msgs_per_s`, `ratio` = on / off.
void idle(benchmark::State& state, Where where) {
    const int count = static_cast<int>(state.range(0));
    double onNs = 0, offNs = 0;
    runOn(where, [&] { idleBench(count); });
    for (auto _ : state) {
        runOn(where, [&] {
            IdleSlot& slot = idleBench(count);
            onNs += slot.on->runBatch();
            offNs += slot.off->runBatch();
        });
    }
    const double messages = static_cast<double>(state.iterations()) * messagesPerBatch;
    state.counters["on_msgs_per_s"] = messages / onNs * 1e9;
    state.counters["off_msgs_per_s"] = messages / offNs * 1e9;
    state.counters["ratio"] = offNs / onNs;
}

void idleRelease() {
    idleSlot().on.reset();
    idleSlot().off.reset();
}

// ------------------------------------------------------------------ memory

constexpr int objectsMeasured = 10'000;

class IdleTimer : public TimerTask {
  public:
    IdleTimer(std::shared_ptr<TaskScheduler> scheduler, std::string name)
        : TimerTask(std::move(scheduler), TaskPriority::normal, std::move(name)) {}
    void taskExecute() override {}
};

class IdleFd : public FileDescriptorTask {
  public:
    IdleFd(std::shared_ptr<TaskScheduler> scheduler, std::string name)
        : FileDescriptorTask(std::move(scheduler), TaskPriority::normal, std::move(name)) {}
    void taskExecuteReadable() override {}
    void taskExecuteWritable() override {}
};

using Make = std::function<std::shared_ptr<void>(const std::string& name)>;

// Bytes per object that `make` returns: the same name for all (interned by
// a first object made beforehand), or a new name each.
double bytesPerObject(const Make& make, bool newNames) {
    std::vector<std::shared_ptr<void>> objects;
    objects.reserve(objectsMeasured + 1);
    objects.push_back(make("warm"));
    std::vector<std::string> names;
    for (int i = 0; i < objectsMeasured; ++i) {
        names.push_back(newNames ? "obj" + std::to_string(i) : "warm");
    }
    const std::size_t before = mallinfo2().uordblks;
    for (const std::string& name : names) {
        objects.push_back(make(name));
    }
    const std::size_t after = mallinfo2().uordblks;
    return static_cast<double>(after - before) / objectsMeasured;
}

enum class Kind { timerTask, fdTask, fdTaskWithWrite, taskGroup };

Make maker(Kind kind) {
    switch (kind) {
        case Kind::timerTask:
            return [](const std::string& name) {
                return std::make_shared<IdleTimer>(schedulerRootVelik(), name);
            };
        case Kind::fdTask:
            return [](const std::string& name) {
                return std::make_shared<IdleFd>(schedulerRootVelik(), name);
            };
        case Kind::fdTaskWithWrite:
            return [](const std::string& name) {
                auto task = std::make_shared<IdleFd>(schedulerRootVelik(), name);
                task->checkCreateWriteTask();
                return task;
            };
        case Kind::taskGroup:
            return [](const std::string& name) {
                return TaskGroupIs(name, TaskPriority::normal, false, schedulerRootVelik());
            };
    }
    return nullptr;
}

void memory(benchmark::State& state, Kind kind, Where where) {
    double bytes = 0, bytesNewName = 0;
    for (auto _ : state) {
        runOn(where, [&] {
            bytes = bytesPerObject(maker(kind), false);
            bytesNewName = bytesPerObject(maker(kind), true);
        });
    }
    state.counters["bytes"] = bytes;
    state.counters["bytes_new_name"] = bytesNewName;
}

// Two sets of up to 1000 pairs and their watches need more than the usual
// 1024 descriptors.
void raiseDescriptorLimit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void registerAll() {
    for (auto [name, where] :
         {std::pair{"libevent", Where::libevent}, std::pair{"framework", Where::framework}}) {
        benchmark::RegisterBenchmark((std::string("Echo/") + name).c_str(), echo, where)
            ->Arg(1)
            ->Arg(100)
            ->Arg(1000)
            ->MinTime(0.5)
            ->Unit(benchmark::kMillisecond);
    }
    for (auto [name, where] :
         {std::pair{"libevent", Where::libevent}, std::pair{"framework", Where::framework}}) {
        benchmark::RegisterBenchmark((std::string("Idle/") + name).c_str(), idle, where)
            ->Arg(1)
            ->Arg(100)
            ->MinTime(0.5)
            ->Unit(benchmark::kMillisecond);
    }
    for (auto [name, where] :
         {std::pair{"libevent", Where::libevent}, std::pair{"framework", Where::framework}}) {
        for (auto [kindName, kind] : {std::pair{"TimerTask", Kind::timerTask},
                                      std::pair{"FileDescriptorTask", Kind::fdTask},
                                      std::pair{"FileDescriptorTask+write", Kind::fdTaskWithWrite},
                                      std::pair{"TaskGroup", Kind::taskGroup}}) {
            benchmark::RegisterBenchmark((std::string("Memory/") + kindName + "/" + name).c_str(),
                                         memory, kind, where)
                ->Iterations(1);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    // One arena for every thread, so mallinfo2() sees the worker's
    // allocations too.
    mallopt(M_ARENA_MAX, 1);
    raiseDescriptorLimit();
    registerAll();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    echoSlot().bench.reset();
    idleRelease();
    runOn(Where::libevent, [] {
        echoSlot().bench.reset();
        idleRelease();
    });
    benchmark::Shutdown();
    return 0;
}
