// Statistics and reports at scale: taking a snapshot and rendering it as
// JSON, the text report, the asynchronous writer beside a busy task with a
// slow reader, and the sliced statistics reset.
#include <Velik/Platform.h>
#include <Velik/PlatformSelection.h>
#include <Velik/SnapshotRenderJson.h>
#include <Velik/Task.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/TaskSchedulerSnapshot.h>
#include <fcntl.h>
#include <unistd.h>
#include "Harness.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Velik::TaskPriority;
using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

using VelikBench::makeRoot;

class Worker : public Velik::Task {
  public:
    using Task::Task;
    void taskExecute() override { taskWorkCountInc(3); }
};

// `n` tasks over three priorities that have run once and reported work, as
// a daemon's connections would have.
std::vector<std::shared_ptr<Worker>> populate(Velik::TaskScheduler& scheduler, int n) {
    static constexpr TaskPriority priorities[] = {TaskPriority::high, TaskPriority::normal,
                                                  TaskPriority::low};
    std::vector<std::shared_ptr<Worker>> tasks;
    tasks.reserve(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
        tasks.push_back(std::make_shared<Worker>(&scheduler, priorities[i % 3],
                                                 "connection:" + std::to_string(i)));
        tasks.back()->taskRunAndRecordFromTest();
    }
    return tasks;
}

void BM_SnapshotRenderJson(benchmark::State& state) {
    auto root = makeRoot();
    auto tasks = populate(*root, static_cast<int>(state.range(0)));
    double snapshotMs = 0, renderMs = 0;
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        auto snap = root->snapshot(false, true, true);
        snapshotMs += msSince(start);
        start = Clock::now();
        std::ostringstream out;
        snap->renderJson(*Velik::TaskScheduler::PrintContextIs(out));
        renderMs += msSince(start);
        bytes += out.str().size();
        benchmark::DoNotOptimize(out);
    }
    const auto n = static_cast<double>(state.iterations());
    state.counters["snapshot_ms"] = snapshotMs / n;
    state.counters["render_ms"] = renderMs / n;
    state.counters["total_ms"] = (snapshotMs + renderMs) / n;
    state.counters["MB"] = static_cast<double>(bytes) / n / 1e6;
    state.counters["MB_per_s"] = static_cast<double>(bytes) / 1e3 / (snapshotMs + renderMs);
}
BENCHMARK(BM_SnapshotRenderJson)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_TextReport(benchmark::State& state) {
    auto root = makeRoot();
    auto tasks = populate(*root, static_cast<int>(state.range(0)));
    std::size_t bytes = 0;
    for (auto _ : state) {
        bytes += root->statsRenderTextForDebugToString(false, true, false, false).size();
    }
    state.counters["MB"] =
        static_cast<double>(bytes) / static_cast<double>(state.iterations()) / 1e6;
}
BENCHMARK(BM_TextReport)->Arg(10000)->Unit(benchmark::kMillisecond);

// Reschedules itself until told to stop; its scheduling latency is what the
// rest of the thread costs it.
class Ticker : public Velik::Task {
  public:
    using Task::Task;
    void taskExecute() override {
        if (!stop) {
            scheduleTask();
        }
    }
    bool stop = false;
};

// A 10-thousand-task snapshot written asynchronously to a pipe whose reader
// takes 4 kB every 200 us, while a normal-priority task keeps rescheduling
// itself on the real loop of the main thread.
void BM_AsyncWriterBesideBusyTask(benchmark::State& state) {
    auto root = Velik::schedulerRootVelik();
    auto tasks = populate(*root, 10000);
    for (auto _ : state) {
        int fds[2];
        if (pipe(fds) != 0) {
            state.SkipWithError("pipe");
            return;
        }
        std::atomic<std::size_t> received{0};
        std::thread reader([&] {
            char buf[4096];
            ssize_t n;
            while ((n = read(fds[0], buf, sizeof buf)) > 0) {
                received += static_cast<std::size_t>(n);
                std::this_thread::sleep_for(200us);
            }
        });
        auto ticker = std::make_shared<Ticker>(root.get(), TaskPriority::normal, "ticker");
        ticker->scheduleTask();
        Velik::Platform::doEventLoop(0.01);
        ticker->taskResetStats();

        bool done = false;
        const auto start = Clock::now();
        auto render = root->snapshotRenderJsonAsync(fds[1], root->snapshot(false, true, false),
                                                    [&] { done = true; });
        while (!done) {
            Velik::Platform::doEventLoop(0.01);
        }
        const double wallMs = msSince(start);
        const auto ms = [](Velik::TaskTimeDuration d) { return d.count() / 1e6; };
        state.counters["writer_wall_ms"] = wallMs;
        state.counters["ticker_worst_latency_ms"] = ms(ticker->schedulingLatencyHighWaterMark());
        state.counters["ticker_quantum_ms"] = ms(ticker->taskQuantum());
        state.counters["ticker_runs"] = ticker->taskRunCount();
        state.counters["render_max_run_ms"] = ms(render->taskMaxRunTime());
        state.counters["write_max_run_ms"] = ms(render->writeTask()->writeTask()->taskMaxRunTime());
        state.counters["write_runs"] = render->writeTask()->taskRunCountWritable();
        ticker->stop = true;
        Velik::Platform::doEventLoop(0.01);
        render.reset();
        close(fds[1]);
        reader.join();
        close(fds[0]);
        state.counters["MB"] = static_cast<double>(received.load()) / 1e6;
    }
}
BENCHMARK(BM_AsyncWriterBesideBusyTask)->Iterations(1)->Unit(benchmark::kMillisecond);

// `resetStats` over N tasks, one root callback per slice: the longest slice
// and the number of slices, with the scheduler's quantum (ms) as given.
void BM_ResetStats(benchmark::State& state) {
    auto root = makeRoot();
    root->defaultTaskQuantumIs(std::chrono::milliseconds(state.range(1)));
    auto tasks = populate(*root, static_cast<int>(state.range(0)));
    double longestMs = 0, totalMs = 0;
    int slices = 0;
    for (auto _ : state) {
        root->resetStats();
        while (root->resetStatsInProgress()) {
            const auto start = Clock::now();
            root->callback();
            const double ms = msSince(start);
            longestMs = std::max(longestMs, ms);
            totalMs += ms;
            ++slices;
        }
    }
    const auto n = static_cast<double>(state.iterations());
    state.counters["quantum_ms"] = static_cast<double>(state.range(1));
    state.counters["longest_slice_ms"] = longestMs;
    state.counters["slices"] = slices / n;
    state.counters["mean_slice_ms"] = totalMs / slices;
    state.counters["total_ms"] = totalMs / n;
}
BENCHMARK(BM_ResetStats)->Args({100000, 20})->Args({100000, 1})->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
