#include "Worker.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "Connection.h"
#include "CoroutineConnection.h"

namespace VelikRedis {

namespace {
using namespace std::chrono_literals;
using Velik::TaskPriority;

constexpr auto kSweepPeriod = 100ms;
constexpr std::size_t kSweepBudget = 64;  // due times looked at per stripe and visit

double microseconds(Velik::TaskTimeDuration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}
}  // namespace

Worker::Worker(Keyspace& keyspace, WorkerOptions options)
    : keyspace_(keyspace), options_(std::move(options)) {
    std::promise<std::shared_ptr<Velik::Inbox>> ready;
    auto inbox = ready.get_future();
    thread_ = std::thread([this, &ready] { run(ready); });
    inbox_ = inbox.get();
}

Worker::~Worker() {
    stop();
}

void Worker::run(std::promise<std::shared_ptr<Velik::Inbox>>& ready) {
    Velik::useThreadLocalSingletons();  // this thread's own event base and root
    // Named, so that reports and scrape labels say which worker.
    Velik::schedulerRootVelikNameIs(fmt::format("worker{}", options_.index));
    root_ = Velik::schedulerRootVelik();
    connections_ = Velik::TaskGroupIs("connections", TaskPriority::normal, false, root_);
    connections_->taskGroupQuantumIs(2ms);
    connections_->defaultTaskQuantumIs(1ms);  // half the group's: a group run stays within it
    releaser_ = Velik::makeTask(root_, TaskPriority::low, "release",
                                [this](Velik::Task&) { released_.clear(); });
    auto sweeper = Velik::makePeriodicTimerTask(
        root_, TaskPriority::low, "sweep", Velik::PeriodicTimerMode::fixedDelay, kSweepPeriod,
        [this](Velik::PeriodicTimerTask& self) { sweep(self); });
    std::unique_ptr<Velik::StatsEndpoint> stats;
    if (!options_.statsPath.empty()) {
        try {
            stats = Velik::serveStats(*root_, options_.statsPath);
        } catch (const Velik::Exception& e) {
            std::fprintf(stderr, "velik_redis: not serving statistics: %s\n", e.message().c_str());
        }
    }
    ready.set_value(Velik::inbox());
    Velik::Platform::doEventLoop();  // until `stop`
    stats.reset();
    sweeper->periodicStop();
    released_.clear();  // the closed connections: one completed line in the report
    report_ = root_->statsRenderTextForDebugToString(false, true, false, false);
    releaser_.reset();
    connections_.reset();
    root_.reset();
}

void Worker::adopt(int fd) {
    if (!Velik::post(inbox_, TaskPriority::normal, "adopt", [this, fd] { take(fd); })) {
        ::close(fd);  // the worker has stopped
    }
}

void Worker::take(int fd) {
    if (options_.coroutines) {
        coroutines_.emplace(fd, Velik::spawn(connections_, TaskPriority::normal, "connection",
                                             serveConnection, this, fd));
        accepted_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    auto connection = std::make_shared<Connection>(*this, connections_, fd);
    open_.emplace(connection.get(), std::move(connection));
    accepted_.fetch_add(1, std::memory_order_relaxed);
}

void Worker::release(Connection* connection) {
    const auto it = open_.find(connection);
    if (it != open_.end()) {
        released_.push_back(std::move(it->second));
        open_.erase(it);
        releaser_->scheduleTask();
    }
}

void Worker::releaseCoroutine(int fd) {
    const auto it = coroutines_.find(fd);
    if (it != coroutines_.end()) {
        released_.push_back(std::move(it->second));
        coroutines_.erase(it);
        releaser_->scheduleTask();
    }
}

void Worker::closeAll() {
    coroutines_.clear();  // cancels each body where it waits; the frame closes the socket
    while (!open_.empty()) {
        open_.begin()->second->close();
    }
}

void Worker::stop() {
    if (!thread_.joinable()) {
        return;
    }
    Velik::post(inbox_, TaskPriority::absolute, "stop", [this] {
        closeAll();
        Velik::Platform::stopEventLoop();
    });
    thread_.join();
}

void Worker::sweep(Velik::PeriodicTimerTask& task) {
    const std::size_t stripes = keyspace_.stripeCount();
    const auto share = static_cast<std::size_t>(options_.count);
    std::size_t removed = 0;
    // This worker's stripes are index, index + count, ...; one pass a period
    // at most, resumed where the quantum cut it short.
    for (std::size_t visited = 0; visited < stripes / share + 1; ++visited) {
        const std::size_t stripe = sweepNext_ * share + static_cast<std::size_t>(options_.index);
        sweepNext_ = stripe + share >= stripes ? 0 : sweepNext_ + 1;
        if (stripe < stripes) {
            removed += keyspace_.sweep(stripe, kSweepBudget);
        }
        if (task.taskShouldYield()) {
            break;
        }
    }
    expiredSwept_ += removed;
    task.taskWorkCountInc(removed);
}

void Worker::appendInfo(std::string& out) const {
    out += fmt::format("# Clients\r\nworker:{}\r\nworker_connected_clients:{}\r\n\r\n",
                       options_.index, open_.size() + coroutines_.size());
    // The runtime's own figures for this worker's thread.
    std::uint64_t runs = 0;
    for (const auto& [priority, stats] : root_->queueStatsRoot()) {
        runs += stats.totalRunCount;
    }
    Velik::TaskTimeDuration worstLatency{0};
    std::uint64_t violations = 0;
    const auto snapshot = connections_->snapshot(false, true, false);
    for (const auto* list : {&snapshot->tasks, &snapshot->completedTasks}) {
        for (const Velik::TaskStat& task : *list) {
            worstLatency = std::max(worstLatency, task.taskSchedulingLatencyHighWaterMark());
            violations += task.taskQuantumViolation200() + task.taskQuantumViolation500();
        }
    }
    out += fmt::format(
        "# Runtime\r\nruntime_task_runs:{}\r\nruntime_normal_priority_runs:{}\r\n"
        "runtime_max_scheduler_slip_us:{:.0f}\r\n"
        "runtime_max_connection_latency_us:{:.0f}\r\n"
        "runtime_connection_quantum_violations:{}\r\nexpired_keys_swept:{}\r\n\r\n",
        runs, root_->queueStatsRoot()[TaskPriority::normal].totalRunCount,
        microseconds(root_->maxSchedulerSlip()), microseconds(worstLatency), violations,
        expiredSwept_);
    appendStalls(out);
}

// Runs of this thread that held it past the stall threshold, as the stall
// sentinel recorded them (the last 32): count, the longest, the latest.
void Worker::appendStalls(std::string& out) const {
    const auto id = reinterpret_cast<std::uintptr_t>(&root_->runPublication());
    std::size_t count = 0;
    const Velik::StallRecord* longest = nullptr;
    const Velik::StallRecord* latest = nullptr;
    const std::vector<Velik::RootStalls> all = Velik::stallRecords();
    for (const Velik::RootStalls& root : all) {
        if (root.rootId != id) {
            continue;
        }
        for (const Velik::StallRecord& stall : root.stalls) {
            ++count;
            latest = &stall;
            if (!longest || stall.duration > longest->duration) {
                longest = &stall;
            }
        }
    }
    out += fmt::format("# Stalls\r\nstalls_recorded:{}\r\n", count);
    if (longest) {
        out += fmt::format("stall_longest_ms:{:.0f}\r\nstall_longest_task:{}\r\n",
                           microseconds(longest->duration) / 1000.0, longest->taskName);
        out += fmt::format("stall_latest_task:{}\r\nstall_latest_top_frame:{}\r\n",
                           latest->taskName, Velik::stallTopFrame(*latest));
    }
    out += "\r\n";
}

}  // namespace VelikRedis
