// A worker thread: its own root on libevent, serving the connections handed
// to it.
//
// Why libevent: the host framework's loop is the process's main loop, one
// for the whole process, while every worker needs a loop of its own; a
// thread that calls `useThreadLocalSingletons()` gets its own event base,
// root and timer wheel. The main thread keeps the framework's loop for the
// listener and the signals.
//
// On the worker's root:
//   connections  the task group of the connections (normal), 2 ms a run of
//                the group, 1 ms for each connection's run;
//   adopt        inbox items (normal) that take over accepted descriptors;
//   sweep        a periodic timer task (low, every 100 ms) removing expired
//                keys from this worker's share of the keyspace's stripes;
//   release      a task (low) that frees closed connections after their run;
//   stats        the thread's stats endpoint, when a path is given.
#pragma once

#include <Velik/Velik.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Keyspace.h"
#include "RespParser.h"

namespace VelikRedis {

class Connection;

struct WorkerOptions {
    int index = 0;
    int count = 1;             // workers in all: this one sweeps every count-th stripe
    std::string statsPath;     // empty: no stats endpoint
    double idleSeconds = 300;  // 0: never
    RespLimits limits;
    bool coroutines = false;  // connections as coroutine tasks (CoroutineConnection.h)
};

class Worker {
  public:
    // Starts the thread and returns once its loop is about to run.
    Worker(Keyspace& keyspace, WorkerOptions options);
    // Stops it (`stop`).
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Any thread: the worker takes over `fd`, a connected socket.
    void adopt(int fd);
    // Any thread: closes the worker's connections, ends its loop (its stats
    // endpoint closes, its socket goes) and joins it. Idempotent.
    void stop();

    // After `stop`: the worker's text report.
    const std::string& report() const { return report_; }
    // Any thread.
    std::uint64_t requests() const { return requests_.load(std::memory_order_relaxed); }
    std::uint64_t accepted() const { return accepted_.load(std::memory_order_relaxed); }
    int index() const { return options_.index; }
    // The worker thread's inbox (null once it has ended).
    const std::shared_ptr<Velik::Inbox>& inbox() const { return inbox_; }

    // --- For the worker's connections, on its thread ---
    Keyspace& keyspace() { return keyspace_; }
    const RespLimits& limits() const { return options_.limits; }
    double idleSeconds() const { return options_.idleSeconds; }
    const std::shared_ptr<Velik::TimerWheel>& timerWheel() const { return root_->timerWheel(); }
    void requestsInc(std::uint64_t n) {
        requests_.store(requests_.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
    }
    // A closed connection, to be freed once its run has ended.
    void release(Connection* connection);
    // The coroutine connection on `fd` has ended: freed once its run has.
    void releaseCoroutine(int fd);
    // The connection task running now.
    Velik::Task& runningConnection() const {
        return static_cast<Velik::Task&>(*connections_->currentlyRunningTask());
    }
    // The INFO sections of this worker: clients, and the runtime's figures.
    void appendInfo(std::string& out) const;

  private:
    // The "# Stalls" section of INFO.
    void appendStalls(std::string& out) const;
    void run(std::promise<std::shared_ptr<Velik::Inbox>>& ready);
    void take(int fd);
    void closeAll();
    void sweep(Velik::PeriodicTimerTask& task);

    Keyspace& keyspace_;
    WorkerOptions options_;
    std::atomic<std::uint64_t> requests_{0};
    std::atomic<std::uint64_t> accepted_{0};
    std::string report_;
    // On the worker's thread only.
    std::shared_ptr<Velik::TaskSchedulerRoot> root_;
    std::shared_ptr<Velik::TaskGroup> connections_;
    std::unordered_map<Connection*, std::shared_ptr<Connection>> open_;
    std::unordered_map<int, std::shared_ptr<Velik::Task>> coroutines_;  // by descriptor
    std::vector<std::shared_ptr<void>> released_;                       // either kind of connection
    std::shared_ptr<Velik::Task> releaser_;
    std::size_t sweepNext_ = 0;
    std::uint64_t expiredSwept_ = 0;

    std::thread thread_;
    std::shared_ptr<Velik::Inbox> inbox_;
};

}  // namespace VelikRedis
