// Coroutine tasks beside the plain tasks they replace, on a root driven by
// hand (`handleSchedulerRun()` per run, no event loop in between), so the
// figures are the task machinery's own:
//
//   Yield/plain         one run of a Task subclass that queues itself again
//   Yield/coroutine     one resumption of a coroutine that yields on every
//                       `co_await yieldIfDue()` (forced yield): the same
//                       queueing, plus a resume and a suspension
//   PingPong/plain      two tasks that wake each other in turn (one
//                       `scheduleTask()` of the other per run)
//   PingPong/coroutine  two coroutines that yield on every run, taking turns
//                       on the run queue as the two plain tasks do
//   Memory              bytes and allocations of one task: `plain` a Task
//                       subclass by `std::make_shared`, `coroutine` a spawned
//                       coroutine (task, counts and frame in one block)
//
// Counters: `ns` per run (CPU time of the benchmark loop).
#include "Harness.h"

#include <Velik/CoroutineTask.h>
#include <Velik/Task.h>

#include "CountingAllocator.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

namespace {

using Velik::Co;
using Velik::TaskPriority;
using VelikBench::makeRoot;

class Again : public Velik::Task {
  public:
    using Task::Task;
    void taskExecute() override { scheduleTask(); }
};

Co<> yielding() {
    for (;;) {
        co_await Velik::yieldIfDue();
    }
}

void BM_YieldPlain(benchmark::State& state) {
    auto root = makeRoot();
    auto task = std::make_shared<Again>(root.get(), TaskPriority::normal, "again");
    task->scheduleTask();
    for (auto _ : state) {
        root->handleSchedulerRun();
    }
    task->unscheduleTask();
}
BENCHMARK(BM_YieldPlain)->Name("Yield/plain");

void BM_YieldCoroutine(benchmark::State& state) {
    auto root = makeRoot();
    auto task = Velik::spawn(root, TaskPriority::normal, "again", yielding);
    task->taskForceYieldInTestIs(true);
    for (auto _ : state) {
        root->handleSchedulerRun();
    }
}
BENCHMARK(BM_YieldCoroutine)->Name("Yield/coroutine");

// Wakes its partner and goes idle.
class Ping : public Velik::Task {
  public:
    using Task::Task;
    void taskExecute() override { partner->scheduleTask(); }
    Velik::Task* partner = nullptr;
};

void BM_PingPongPlain(benchmark::State& state) {
    auto root = makeRoot();
    auto a = std::make_shared<Ping>(root.get(), TaskPriority::normal, "ping");
    auto b = std::make_shared<Ping>(root.get(), TaskPriority::normal, "pong");
    a->partner = b.get();
    b->partner = a.get();
    a->scheduleTask();
    for (auto _ : state) {
        root->handleSchedulerRun();
    }
    a->unscheduleTask();
    b->unscheduleTask();
}
BENCHMARK(BM_PingPongPlain)->Name("PingPong/plain");

// Yields `rounds` times and ends.
Co<> rally(int rounds) {
    for (int i = 0; i < rounds; ++i) {
        co_await Velik::yieldIfDue();
    }
}

void BM_PingPongCoroutine(benchmark::State& state) {
    auto root = makeRoot();
    auto a = Velik::spawn(root, TaskPriority::normal, "ping", yielding);
    auto b = Velik::spawn(root, TaskPriority::normal, "pong", yielding);
    a->taskForceYieldInTestIs(true);
    b->taskForceYieldInTestIs(true);
    for (auto _ : state) {
        root->handleSchedulerRun();
    }
}
BENCHMARK(BM_PingPongCoroutine)->Name("PingPong/coroutine");

void BM_Memory(benchmark::State& state) {
    auto root = makeRoot();
    std::size_t plainBytes = 0, plainAllocs = 0, coBytes = 0, coAllocs = 0;
    auto warm = Velik::spawn(root, TaskPriority::normal, "m", rally, 0);
    auto warmPlain = std::make_shared<Again>(root.get(), TaskPriority::normal, "m");
    for (auto _ : state) {
        {
            VelikTest::AllocationLog log;
            auto task = std::make_shared<Again>(root.get(), TaskPriority::normal, "m");
            log.stop();
            plainBytes = log.bytes();
            plainAllocs = log.count();
        }
        {
            VelikTest::AllocationLog log;
            auto task = Velik::spawn(root, TaskPriority::normal, "m", rally, 0);
            log.stop();
            coBytes = log.bytes();
            coAllocs = log.count();
        }
    }
    state.counters["plain_bytes"] = static_cast<double>(plainBytes);
    state.counters["plain_allocs"] = static_cast<double>(plainAllocs);
    state.counters["coroutine_bytes"] = static_cast<double>(coBytes);
    state.counters["coroutine_allocs"] = static_cast<double>(coAllocs);
    state.counters["sizeof_plain"] = sizeof(Again);
    state.counters["sizeof_coroutine_task"] = sizeof(Velik::CoroutineTask<void>);
}
BENCHMARK(BM_Memory)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
