// The scheduling core's own costs, driven by hand without an event loop (the
// loop-driven figures are taskrun_bench's): one scheduler run, queueing and
// unqueueing, `taskShouldYield`, one history insert, the clock reads they
// rest on, and the memory of one task.
//
// This program links the counting allocator to count the bytes a task takes;
// counting is off except inside `BM_TaskMemory`.
#include <Velik/ConstStringCache.h>
#include <Velik/Platform.h>
#include <Velik/Task.h>
#include <Velik/TaskSchedulerHistory.h>
#include <Velik/TaskSchedulerRoot.h>

#include "Kiv/Ticks.h"

#include <benchmark/benchmark.h>

#include "Harness.h"
#include "support/CountingAllocator.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace {

using VelikBench::threadCpuNs;
using VelikTest::AllocationLog;

using Velik::TaskPriority;

using VelikBench::makeRoot;

// Reschedules itself until its quantum is used up.
class Busy : public Velik::Task {
  public:
    using Task::Task;
    void taskExecute() override {
        if (!taskShouldYield()) {
            scheduleTask();
        }
    }
};

// The plainest task there is.
class Plain : public Velik::Task {
  public:
    using Task::Task;
    void taskExecute() override {}
};

// --- Runs and queueing ---

// One scheduler run with `state.range(0)` always-busy tasks spread over the
// high, normal and low queues: pick, run, account, history, next request.
void BM_SchedulerRun(benchmark::State& state) {
    auto root = makeRoot();
    std::vector<std::shared_ptr<Busy>> tasks;
    const TaskPriority priorities[] = {TaskPriority::high, TaskPriority::normal, TaskPriority::low};
    for (int i = 0; i < state.range(0); ++i) {
        tasks.push_back(std::make_shared<Busy>(root.get(), priorities[i % 3], "busy"));
        tasks.back()->scheduleTask();
    }
    for (auto _ : state) {
        root->handleSchedulerRun();
    }
    for (auto& t : tasks) {
        t->unscheduleTask();
    }
}
BENCHMARK(BM_SchedulerRun)->Arg(1)->Arg(30)->Arg(1000);

// `scheduleTask()` then `unscheduleTask()` of an idle task (per pair). The
// scheduler stays runnable after the first pair, as it does while any other
// task is queued.
void BM_ScheduleUnschedule(benchmark::State& state) {
    auto root = makeRoot();
    auto task = std::make_shared<Plain>(root.get(), TaskPriority::normal, "t");
    for (auto _ : state) {
        task->scheduleTask();
        task->unscheduleTask();
    }
}
BENCHMARK(BM_ScheduleUnschedule);

// The two halves apart: `scheduleTask()` of 1000 idle tasks, then
// `unscheduleTask()` of the same 1000, each timed in thread CPU time.
void BM_ScheduleThenUnschedule(benchmark::State& state) {
    auto root = makeRoot();
    std::vector<std::shared_ptr<Plain>> tasks;
    for (int i = 0; i < 1000; ++i) {
        tasks.push_back(std::make_shared<Plain>(root.get(), TaskPriority::normal, "t"));
    }
    double scheduleNs = 0, unscheduleNs = 0;
    for (auto _ : state) {
        double start = threadCpuNs();
        for (auto& t : tasks) {
            t->scheduleTask();
        }
        double middle = threadCpuNs();
        for (auto& t : tasks) {
            t->unscheduleTask();
        }
        unscheduleNs += threadCpuNs() - middle;
        scheduleNs += middle - start;
    }
    const double calls = static_cast<double>(state.iterations()) * 1000;
    state.counters["schedule_ns"] = scheduleNs / calls;
    state.counters["unschedule_ns"] = unscheduleNs / calls;
}
BENCHMARK(BM_ScheduleThenUnschedule);

// --- Yielding ---

// Calls `taskShouldYield()` in its benchmark loop, from inside its own run.
class YieldProbe : public Velik::Task {
  public:
    YieldProbe(Velik::TaskScheduler* scheduler, benchmark::State& state)
        : Task(scheduler, TaskPriority::normal, "yield"), state_(state) {}
    void taskExecute() override {
        for (auto _ : state_) {
            benchmark::DoNotOptimize(taskShouldYield());
        }
    }

  private:
    benchmark::State& state_;
};

// Mode 0 (ticks) as a task's inner loop sees it: the quantum is far off, so
// nearly every call only reads the tick counter; about one call per 500
// microseconds also reads the steady clock.
void BM_TaskShouldYield(benchmark::State& state) {
    auto root = makeRoot();
    auto probe = std::make_shared<YieldProbe>(root.get(), state);
    probe->taskQuantumNoCheckIs(std::chrono::hours(1));
    probe->taskRunFromTest();
    state.SetLabel(probe->taskShouldYieldMode() == Velik::TaskShouldYieldMode::ticks ? "ticks"
                                                                                     : "not ticks");
}
BENCHMARK(BM_TaskShouldYield);

// Mode 0 with a quantum of 1 ns: every call says yes, so every call is the
// first after a yield and reads the steady clock.
void BM_TaskShouldYieldClock(benchmark::State& state) {
    auto root = makeRoot();
    auto probe = std::make_shared<YieldProbe>(root.get(), state);
    probe->taskQuantumNoCheckIs(std::chrono::nanoseconds(1));
    probe->taskRunFromTest();
}
BENCHMARK(BM_TaskShouldYieldClock);

// Mode 0 as an inner loop pays for it: a loop step of some work (a short
// chain of dependent arithmetic, about what a loop that checks every item
// does per item) with and without the call, in alternating batches. The
// tick read does not wait for earlier instructions, so beside work it
// costs less than back to back. Counters: `work_ns` and `with_yield_ns`
// per step, `added_ns` their difference.
class YieldInWork : public Velik::Task {
  public:
    static constexpr int steps = 10'000;

    YieldInWork(Velik::TaskScheduler* scheduler, benchmark::State& state)
        : Task(scheduler, TaskPriority::normal, "yieldwork"), state_(state) {}
    void taskExecute() override {
        double work = 0, withYield = 0;
        for (auto _ : state_) {
            work += VelikBench::timed([&] { loop(false); });
            withYield += VelikBench::timed([&] { loop(true); });
        }
        const double n = static_cast<double>(state_.iterations()) * steps;
        state_.counters["work_ns"] = work / n;
        state_.counters["with_yield_ns"] = withYield / n;
        state_.counters["added_ns"] = (withYield - work) / n;
    }

  private:
    void loop(bool check) {
        std::uint64_t x = seed_;
        for (int i = 0; i < steps; ++i) {
            for (int k = 0; k < 8; ++k) {
                x = x * 6364136223846793005ull + 1442695040888963407ull;
            }
            benchmark::DoNotOptimize(x);
            if (check && taskShouldYield()) {
                ++x;
            }
        }
        seed_ = x;
    }

    benchmark::State& state_;
    std::uint64_t seed_ = 1;
};

void BM_TaskShouldYieldInWork(benchmark::State& state) {
    auto root = makeRoot();
    auto probe = std::make_shared<YieldInWork>(root.get(), state);
    probe->taskQuantumNoCheckIs(std::chrono::hours(1));
    probe->taskRunFromTest();
}
BENCHMARK(BM_TaskShouldYieldInWork);

// --- History ---

// One task event into a full ring of 100 (the oldest event, and its name
// reference, goes).
void BM_HistoryInsert(benchmark::State& state) {
    auto root = makeRoot();
    auto task = std::make_shared<Plain>(root.get(), TaskPriority::normal, "t");
    Velik::TaskSchedulerHistory& history = *root->history();
    const Velik::TaskTimePoint now = Velik::taskSteadyNow();
    for (std::uint32_t i = 0; i < history.capacity(); ++i) {
        history.insert(now, Velik::TaskSchedulerEventType::schedule, task.get());
    }
    for (auto _ : state) {
        history.insert(now, Velik::TaskSchedulerEventType::schedule, task.get());
    }
}
BENCHMARK(BM_HistoryInsert);

// --- Clock references ---

// One steady-clock read, as `taskSteadyNow()` makes it: two per task run.
void BM_SteadyClock(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(Velik::taskSteadyNow());
    }
}
BENCHMARK(BM_SteadyClock);

// One read of the processor tick counter.
void BM_Ticks(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(Kiv::ticks());
    }
}
BENCHMARK(BM_Ticks);

// --- Memory ---

// Bytes of one `Plain` made with `std::make_shared` on a root, counted by
// the replaced allocation functions:
//   sizeof_task     the object;
//   block_bytes     its allocation: object plus shared-pointer control block;
//   node_bytes      one interned name: a node of the thread's string cache;
//   name_bytes      what interning a fresh name ("m<n>"; the display name
//                   "N m<n>" is made when shown) adds to the cache: one node,
//                   and the cache's bucket array as it grows, averaged over
//                   1000 tasks;
//   total_bytes     the two together (a task whose names are interned
//                   already takes only block_bytes);
//   allocs          allocations per task.
void BM_TaskMemory(benchmark::State& state) {
    auto root = makeRoot();
    constexpr int count = 1000;
    std::vector<std::shared_ptr<Plain>> tasks;
    tasks.reserve(count);
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        names.push_back("m" + std::to_string(i));
    }
    std::size_t blockBytes = 0, nodeBytes = 0, totalBytes = 0, allocs = 0;
    for (auto _ : state) {
        for (int i = 0; i < count; ++i) {
            AllocationLog log;
            tasks.push_back(std::make_shared<Plain>(root.get(), TaskPriority::normal, names[i]));
            log.stop();
            // make_shared's block comes first (the constructor, which
            // interns the names, runs inside it); the last is a cache node.
            blockBytes = log.firstSize();
            nodeBytes = log.lastSize();
            totalBytes += log.bytes();
            allocs += log.count();
        }
    }
    const double made = static_cast<double>(state.iterations()) * count;
    state.counters["sizeof_task"] = sizeof(Plain);
    state.counters["block_bytes"] = static_cast<double>(blockBytes);
    state.counters["node_bytes"] = static_cast<double>(nodeBytes);
    state.counters["name_bytes"] = static_cast<double>(totalBytes) / made - blockBytes;
    state.counters["total_bytes"] = static_cast<double>(totalBytes) / made;
    state.counters["allocs"] = static_cast<double>(allocs) / made;
}
// Once: the cache grows from the state it is in, as in a program.
BENCHMARK(BM_TaskMemory)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
