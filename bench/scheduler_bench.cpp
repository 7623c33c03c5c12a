// Cost of one scheduler run (pick, run, account, record history) and of
// queueing a task, driven without an event loop.
#include <Velik/Platform.h>
#include <Velik/Task.h>
#include <Velik/TaskSchedulerRoot.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

namespace {

class NullCallbackControl : public Velik::Platform::CallbackControl {
  public:
    void requestCallback() override {}
    void cancelCallback() override {}
    bool pendingCallback() const override { return false; }
};

class Busy : public Velik::Task {
  public:
    using Task::Task;
    void taskExecute() override {
        if (!taskShouldYield()) {
            scheduleTask();
        }
    }
};

std::shared_ptr<Velik::TaskSchedulerRoot> makeRoot() {
    return std::make_shared<Velik::TaskSchedulerRoot>(
        "bench",
        [](Velik::Platform::CallbackHandler*) { return std::make_shared<NullCallbackControl>(); });
}

// One scheduler run with `state.range(0)` always-busy tasks spread over the
// high, normal and low queues.
void BM_SchedulerRun(benchmark::State& state) {
    auto root = makeRoot();
    std::vector<std::shared_ptr<Busy>> tasks;
    const Velik::TaskPriority priorities[] = {
        Velik::TaskPriority::high, Velik::TaskPriority::normal, Velik::TaskPriority::low};
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

// Queueing and unqueueing one task.
void BM_ScheduleUnschedule(benchmark::State& state) {
    auto root = makeRoot();
    auto task = std::make_shared<Busy>(root.get(), Velik::TaskPriority::normal, "t");
    for (auto _ : state) {
        task->scheduleTask();
        task->unscheduleTask();
    }
}
BENCHMARK(BM_ScheduleUnschedule);

}  // namespace

BENCHMARK_MAIN();
