// Tasks from callables and periodic timers, each figure beside its peer of
// the same run.
//
//   Run/<n>              n tasks (1, 100) that do no work and reschedule
//                        themselves until a batch of 100 thousand runs is
//                        spent, through the framework's real event loop on
//                        the main thread: `lambda_ns` per run of tasks made
//                        by `makeTask`, `subclass_ns` per run of a Task
//                        subclass doing the same; batches alternate, timed in
//                        thread CPU time.
//   Hour/<how>/<family>  1000 timer tasks firing once a second for one hour
//                        of virtual time (3.6 million runs): `periodic`, fixed
//                        rate periodic timer tasks started on one shared grid;
//                        `rearm`, the peer, tasks that re-arm themselves by
//                        hand one second after each run (`scheduleTaskDelay`),
//                        started with 1 s jitter as the timer-task benchmark
//                        does, so they drift apart; `grouped`, the periodic
//                        tasks in one task group, so that one loop pass runs
//                        many of them (every task run of the root costs a
//                        loop pass, which dominates on libevent). Wall time of the hour;
//                        `cpu_s` the CPU time of the thread that ran it. The
//                        framework side runs on the main thread under the
//                        framework's virtual time, the libevent side on a
//                        thread with thread-local singletons under libevent
//                        fast-forward.
#include "Harness.h"

#include <Velik/FastForward.h>
#include <Velik/LambdaTask.h>
#include <Velik/PlatformSelection.h>
#include <Velik/TaskGroup.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/Thread.h>
#include <Velik/Time.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace Velik;
using VelikBench::timed;

constexpr int runsPerBatch = 100'000;

// ------------------------------------------------------------- task runs

struct Budget {
    int remaining = 0;
    int tasks = 0;
    // Reschedules while enough is left for every other queued task to run.
    bool more() { return --remaining >= tasks; }
};

class Spinner : public Task {
  public:
    Spinner(std::shared_ptr<TaskScheduler> scheduler, Budget* budget)
        : Task(std::move(scheduler), TaskPriority::normal, "spinner"), budget_(budget) {}
    void taskExecute() override {
        if (budget_->more()) {
            scheduleTask();
        }
    }

  private:
    Budget* budget_;
};

template <typename Make>
struct Population {
    Budget budget;
    std::vector<std::shared_ptr<Task>> tasks;

    Population(int count, Make make) {
        budget.tasks = count;
        for (int i = 0; i < count; ++i) {
            tasks.push_back(make(&budget));
        }
    }
    void runBatch() {
        budget.remaining = runsPerBatch;
        for (auto& task : tasks) {
            task->scheduleTask();
        }
        Platform::doEventLoop();
    }
};

void run(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    auto root = schedulerRootVelik();
    Population lambdas(count, [&root](Budget* budget) -> std::shared_ptr<Task> {
        return makeTask(root, TaskPriority::normal, "spinner", [budget](Task& self) {
            if (budget->more()) {
                self.scheduleTask();
            }
        });
    });
    Population subclassed(count, [&root](Budget* budget) -> std::shared_ptr<Task> {
        return std::make_shared<Spinner>(root, budget);
    });
    double lambdaNs = 0, subclassNs = 0;
    for (auto _ : state) {
        lambdaNs += timed([&] { lambdas.runBatch(); });
        subclassNs += timed([&] { subclassed.runBatch(); });
    }
    const double runs = static_cast<double>(state.iterations()) * runsPerBatch;
    state.counters["lambda_ns"] = lambdaNs / runs;
    state.counters["subclass_ns"] = subclassNs / runs;
}

// ---------------------------------------------------------- an hour of timers

enum class How { periodic, grouped, rearm };

class Rearm : public TimerTask {
  public:
    Rearm(std::shared_ptr<TaskScheduler> scheduler, std::uint64_t* runs)
        : TimerTask(std::move(scheduler), TaskPriority::normal, "rearm"), runs_(runs) {}
    void taskExecute() override {
        ++*runs_;
        scheduleTaskDelay(1.0);
    }

  private:
    std::uint64_t* runs_;
};

const char* howName(How how) {
    switch (how) {
        case How::periodic:
            return "periodic";
        case How::grouped:
            return "grouped";
        case How::rearm:
            break;
    }
    return "rearm";
}

std::uint64_t runHour(How how) {
    auto root = schedulerRootVelik();
    std::shared_ptr<TaskScheduler> scheduler = root;
    if (how == How::grouped) {
        scheduler = TaskGroupIs("timers", TaskPriority::normal, false, root);
    }
    std::uint64_t runs = 0;
    std::vector<std::shared_ptr<TimerTask>> tasks;
    const double first = Velik::time() + 1.0;
    for (int i = 0; i < 1000; ++i) {
        if (how != How::rearm) {
            auto task = makePeriodicTimerTask(scheduler, TaskPriority::normal, "periodic",
                                              PeriodicTimerMode::fixedRate, std::chrono::seconds(1),
                                              [&runs](PeriodicTimerTask&) { ++runs; });
            task->periodicStartAt(first, 1.0);
            tasks.push_back(task);
        } else {
            tasks.push_back(std::make_shared<Rearm>(root, &runs));
            tasks.back()->scheduleTaskJitterUp(1.0, 100);
        }
    }
    Platform::doEventLoop(3600.0);
    for (auto& task : tasks) {
        task->stopTimerTask();
    }
    return runs;
}

void hour(benchmark::State& state, How how, bool libevent) {
    // Virtual time only here: the run batches above measure the plain path.
    Platform::setFastForward(true);
    setLeFastForward(true);
    std::uint64_t runs = 0;
    double cpuNs = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        if (libevent) {
            std::thread([&] {
                useThreadLocalSingletons();
                cpuNs += timed([&] { runs = runHour(how); });
            }).join();
        } else {
            cpuNs += timed([&] { runs = runHour(how); });
        }
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.counters["runs"] = static_cast<double>(runs);
    state.counters["cpu_s"] = cpuNs / 1e9 / static_cast<double>(state.iterations());
    setLeFastForward(false);
}

void registerAll() {
    benchmark::RegisterBenchmark("Run", run)->Arg(1)->Arg(100);
    for (bool libevent : {false, true}) {
        const char* family = libevent ? "Libevent" : "Framework";
        for (How how : {How::periodic, How::grouped, How::rearm}) {
            const std::string name = std::string("Hour/") + howName(how) + "/" + family;
            benchmark::RegisterBenchmark(name.c_str(), hour, how, libevent)
                ->UseManualTime()
                ->Iterations(1)
                ->Unit(benchmark::kMillisecond);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    registerAll();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
