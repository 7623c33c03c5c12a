// What serving a live viewer costs a daemon: a thread with 10 thousand tasks
// and some periodic work of its own, once alone and once with a viewer that
// asks its stats endpoint for a snapshot every second, in the same run.
#include <Velik/ConstStringCache.h>
#include <Velik/PlatformSelection.h>
#include <Velik/StatsEndpoint.h>
#include <Velik/Task.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/TaskStat.h>
#include <Velik/TimerTask.h>
#include "Harness.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Velik::TaskPriority;
using Clock = std::chrono::steady_clock;

constexpr int taskCount = 10000;
constexpr double runSeconds = 6.0;
constexpr int periodicCount = 20;

class Worker : public Velik::Task {
  public:
    using Task::Task;
    void taskExecute() override { taskWorkCountInc(3); }
};

// The daemon's own work: every 10 ms, 50 us of computing.
class Periodic : public Velik::TimerTask {
  public:
    Periodic(Velik::TaskScheduler* scheduler, int i)
        : TimerTask(scheduler, TaskPriority::normal, "periodic" + std::to_string(i)) {}
    void taskExecute() override {
        const auto until = Clock::now() + 50us;
        while (Clock::now() < until) {
        }
        if (!stop) {
            scheduleTaskDelay(0.01);
        }
    }
    bool stop = false;
};

double threadCpuSeconds() {
    return VelikBench::threadCpuNs() / 1e9;
}

// One snapshot request; the bytes received.
std::size_t askSnapshot(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    std::size_t bytes = 0;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        write(fd, "snapshot\n", 9) == 9) {
        char buffer[65536];
        for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
            bytes += static_cast<std::size_t>(n);
        }
    }
    close(fd);
    return bytes;
}

// Arg 0: no viewer; 1: a viewer asking for a snapshot every second.
void BM_StatsEndpointViewer(benchmark::State& state) {
    const bool withViewer = state.range(0) != 0;
    auto root = Velik::schedulerRootVelik();
    std::vector<std::shared_ptr<Worker>> tasks;
    for (int i = 0; i < taskCount; ++i) {
        tasks.push_back(std::make_shared<Worker>(root.get(), TaskPriority::normal,
                                                 "connection:" + std::to_string(i)));
        tasks.back()->taskRunAndRecordFromTest();
        tasks.back()->includeInCompletedTaskIs(false);  // the next run starts afresh
    }
    char dirName[] = "/tmp/velikbenchXXXXXX";
    const std::string dir = mkdtemp(dirName);
    const std::string path = dir + "/main.sock";
    auto endpoint = Velik::serveStats(*root, path);
    std::vector<std::shared_ptr<Periodic>> periodic;
    for (int i = 0; i < periodicCount; ++i) {
        periodic.push_back(std::make_shared<Periodic>(root.get(), i));
        periodic.back()->scheduleTaskDelay(0.01);
    }
    Velik::Platform::doEventLoop(0.5);
    for (auto& p : periodic) {
        p->taskResetStats();
    }

    for (auto _ : state) {
        std::atomic<bool> stop{false}, viewerDone{!withViewer};
        std::atomic<int> snapshots{0};
        std::atomic<std::size_t> bytes{0};
        std::atomic<double> slowestReplyMs{0};
        std::thread viewer;
        if (withViewer) {
            root->clearStatsCommon();  // the endpoint's records of this run only
            viewer = std::thread([&] {
                for (auto next = Clock::now(); !stop; next += 1s) {
                    const auto start = Clock::now();
                    bytes += askSnapshot(path);
                    const double ms =
                        std::chrono::duration<double, std::milli>(Clock::now() - start).count();
                    slowestReplyMs = std::max(slowestReplyMs.load(), ms);
                    ++snapshots;
                    while (!stop && Clock::now() < next + 1s) {
                        std::this_thread::sleep_for(10ms);
                    }
                }
                viewerDone = true;
            });
        }
        const double cpuStart = threadCpuSeconds();
        const auto wallStart = Clock::now();
        Velik::Platform::doEventLoop(runSeconds);
        const double cpu = threadCpuSeconds() - cpuStart;
        const double wall = std::chrono::duration<double>(Clock::now() - wallStart).count();
        stop = true;
        while (!viewerDone) {  // a request under way needs the loop
            Velik::Platform::doEventLoop(0.01);
        }
        if (viewer.joinable()) {
            viewer.join();
        }

        Velik::TaskTimeDuration worst{0};
        for (auto& p : periodic) {
            worst = std::max(worst, p->schedulingLatencyHighWaterMark());
        }
        state.counters["daemon_cpu_pct"] = 100.0 * cpu / wall;
        state.counters["worst_latency_ms"] = static_cast<double>(worst.count()) / 1e6;
        state.counters["snapshots"] = snapshots.load();
        state.counters["MB_each"] =
            snapshots ? static_cast<double>(bytes.load()) / snapshots / 1e6 : 0.0;
        state.counters["slowest_reply_ms"] = slowestReplyMs.load();
        // The endpoint's longest runs: taking the snapshot (the connection's
        // read side), rendering one slice, writing to the socket.
        const auto longestMs = [&root](const char* name) {
            const auto& completed = root->completedTaskStats();
            const auto it = completed.find(Velik::ConstStringCache::forThisThread().intern(name));
            return it == completed.end()
                       ? 0.0
                       : static_cast<double>(it->second.taskRunTimeHighWaterMark().count()) / 1e6;
        };
        state.counters["snapshot_run_ms"] = longestMs("StatsEndpoint:client:read");
        state.counters["slice_run_ms"] = longestMs("StatsEndpoint:render");
        state.counters["write_run_ms"] = longestMs("StatsEndpoint:reply:write");
    }

    for (auto& p : periodic) {
        p->stop = true;
        p->stopTimerTask();
    }
    endpoint.reset();
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_StatsEndpointViewer)
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
