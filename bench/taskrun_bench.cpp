// Task runs through the real event loop on each platform, beside the bare
// deferred-callback round trip of the same loop.
//
// The framework side runs on this program's main thread (the framework's
// main loop); the libevent side on a worker thread that switched to
// thread-local singletons. On each, the thread's own root
// (`schedulerRootVelik()`) holds 1, 100 or 10 thousand tasks that do no work
// and reschedule themselves until the batch's budget of runs is spent, and
// `Platform::doEventLoop()` runs the batch until the root turns idle. The
// bare reference is a `CallbackControl` from `Platform::getCallbackControl`
// whose handler asks again from inside `callback()`, batch for batch the
// same number of round trips. The two batches alternate, so both see the same
// machine load, and each is timed in the CPU time of the thread that runs it.
//
// Counters: `bare_ns` and `run_ns` (CPU nanoseconds per round trip and per
// task run), `runs_per_s` (task runs per CPU second) and `ratio`, the task-run
// rate over the bare round-trip rate.
#include <benchmark/benchmark.h>

#include "Harness.h"

#include <Velik/PlatformSelection.h>
#include <Velik/Task.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/Thread.h>

#include <time.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using VelikBench::Requester;
using VelikBench::timed;

// Task runs (and bare round trips) per batch; a multiple of every task count,
// so each task runs equally often.
constexpr int runsPerBatch = 100'000;

// Runs left in the batch, shared by all tasks of a population.
struct Budget {
    int remaining = 0;
    int tasks = 0;
};

// Does no work. It reschedules itself while enough of the budget is left for
// every other queued task to run too, so a batch is exactly its budget of
// runs and exactly as many schedules (the first of each task made by the
// batch itself).
class Spinner : public Velik::Task {
  public:
    Spinner(Velik::TaskScheduler* scheduler, Budget* budget)
        : Task(scheduler, Velik::TaskPriority::normal, "spinner"), budget_(budget) {}
    void taskExecute() override {
        if (--budget_->remaining >= budget_->tasks) {
            scheduleTask();
        }
    }

  private:
    Budget* budget_;
};

// A population of spinners on the thread's root.
struct TaskRun {
    std::shared_ptr<Velik::TaskSchedulerRoot> root = Velik::schedulerRootVelik();
    Budget budget;
    std::vector<std::shared_ptr<Spinner>> tasks;

    void populationIs(int count) {
        if (static_cast<int>(tasks.size()) == count) {
            return;
        }
        tasks.clear();
        for (int i = 0; i < count; ++i) {
            tasks.push_back(std::make_shared<Spinner>(root.get(), &budget));
        }
        budget.tasks = count;
    }
    void runBatch() {
        budget.remaining = runsPerBatch;
        for (auto& task : tasks) {
            task->scheduleTask();
        }
        Velik::Platform::doEventLoop();
    }
};

// What one thread measures, made on that thread on first use.
struct ThreadBench {
    Requester requester{runsPerBatch};
    TaskRun taskRun;
};

ThreadBench& threadBench() {
    static thread_local ThreadBench bench;
    return bench;
}

// The libevent side: a thread with thread-local singletons that runs one job
// per request and hands back its result.
class LibeventWorker {
  public:
    using Job = std::function<double()>;

    LibeventWorker() : thread_([this] { serve(); }) {}
    ~LibeventWorker() {
        {
            std::lock_guard guard(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }

    double run(Job job) {
        std::unique_lock guard(mutex_);
        job_ = std::move(job);
        wake_.notify_all();
        wake_.wait(guard, [this] { return !job_; });
        return result_;
    }

  private:
    // The thread's base is freed at thread exit, after its root and tasks.
    void serve() {
        Velik::useThreadLocalSingletons();
        std::unique_lock guard(mutex_);
        for (;;) {
            wake_.wait(guard, [this] { return job_ || stop_; });
            if (stop_) {
                break;
            }
            result_ = job_();
            job_ = nullptr;
            wake_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    Job job_;
    bool stop_ = false;
    double result_ = 0;
    std::thread thread_;
};

LibeventWorker& libeventWorker() {
    static LibeventWorker worker;
    return worker;
}

enum class Where { framework, libevent };

double runOn(Where where, LibeventWorker::Job job) {
    return where == Where::framework ? job() : libeventWorker().run(std::move(job));
}

void BM_TaskRun(benchmark::State& state, Where where) {
    const int count = static_cast<int>(state.range(0));
    runOn(where, [count] {
        threadBench().taskRun.populationIs(count);
        return 0.0;
    });
    double bareNs = 0, runNs = 0;
    for (auto _ : state) {
        bareNs += runOn(where, [] { return timed([] { threadBench().requester.runBatch(); }); });
        runNs += runOn(where, [] { return timed([] { threadBench().taskRun.runBatch(); }); });
    }
    const double runs = static_cast<double>(state.iterations()) * runsPerBatch;
    state.counters["bare_ns"] = bareNs / runs;
    state.counters["run_ns"] = runNs / runs;
    state.counters["runs_per_s"] = runs / runNs * 1e9;
    state.counters["ratio"] = bareNs / runNs;
}
BENCHMARK_CAPTURE(BM_TaskRun, framework, Where::framework)->Arg(1)->Arg(100)->Arg(10'000);
BENCHMARK_CAPTURE(BM_TaskRun, libevent, Where::libevent)->Arg(1)->Arg(100)->Arg(10'000);

}  // namespace

BENCHMARK_MAIN();
