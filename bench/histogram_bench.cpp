// What the run histograms cost: one record on its own, and a scheduler run
// with the scheduler's histograms on (and the task's own too) beside the
// same run with them off, driven by hand without an event loop.
//
// The run benchmarks alternate batches of `runsPerBatch` runs in each
// configuration, so that all see the same machine load, and time each in the
// thread's CPU time. Counters: `off_ns`, `on_ns`, `own_ns` (CPU nanoseconds
// per run: histograms off; the scheduler's on; the scheduler's and the
// task's own on), `cost_ns` and `own_cost_ns` (the differences to off).
#include <Velik/LatencyHistogram.h>
#include <Velik/Task.h>
#include <Velik/TaskSchedulerRoot.h>

#include <benchmark/benchmark.h>

#include "Harness.h"

#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace {

using Velik::TaskPriority;
using VelikBench::timed;

constexpr int runsPerBatch = 200'000;

// Reschedules itself on every run.
class Busy : public Velik::Task {
  public:
    using Task::Task;
    void taskExecute() override { scheduleTask(); }
};

// Durations as runs have them: 200 ns to about 2 ms, log-uniform.
std::vector<std::int64_t> durations() {
    std::mt19937_64 random(1);
    std::uniform_real_distribution<double> exponent(2.3, 6.3);
    std::vector<std::int64_t> values(4096);
    for (std::int64_t& v : values) {
        v = static_cast<std::int64_t>(std::pow(10.0, exponent(random)));
    }
    return values;
}

void BM_HistogramRecord(benchmark::State& state) {
    const std::vector<std::int64_t> values = durations();
    Velik::LatencyHistogram h;
    std::size_t i = 0;
    for (auto _ : state) {
        h.record(values[i++ & (values.size() - 1)]);
    }
    benchmark::DoNotOptimize(h.count());
}
BENCHMARK(BM_HistogramRecord);

void BM_SchedulerRunHistograms(benchmark::State& state) {
    auto root = VelikBench::makeRoot();
    std::vector<std::shared_ptr<Busy>> tasks;
    const TaskPriority priorities[] = {TaskPriority::high, TaskPriority::normal, TaskPriority::low};
    for (int i = 0; i < state.range(0); ++i) {
        tasks.push_back(std::make_shared<Busy>(root.get(), priorities[i % 3], "busy"));
        tasks.back()->scheduleTask();
    }
    auto batch = [&root](bool on, bool own, std::vector<std::shared_ptr<Busy>>& tasks) {
        root->runHistogramsIs(on);
        for (auto& t : tasks) {
            t->taskHistogramsIs(own);
        }
        return timed([&root] {
            for (int i = 0; i < runsPerBatch; ++i) {
                root->handleSchedulerRun();
            }
        });
    };
    double off = 0, on = 0, own = 0;
    for (auto _ : state) {
        off += batch(false, false, tasks);
        on += batch(true, false, tasks);
        own += batch(true, true, tasks);
    }
    const double runs = static_cast<double>(state.iterations()) * runsPerBatch;
    state.counters["off_ns"] = off / runs;
    state.counters["on_ns"] = on / runs;
    state.counters["own_ns"] = own / runs;
    state.counters["cost_ns"] = (on - off) / runs;
    state.counters["own_cost_ns"] = (own - off) / runs;
    for (auto& t : tasks) {
        t->unscheduleTask();
    }
}
BENCHMARK(BM_SchedulerRunHistograms)->Arg(1)->Arg(30)->Arg(1000)->Iterations(10);

}  // namespace

BENCHMARK_MAIN();
