// What watching for stalls costs, and how quickly a stall is caught.
//
// BM_RunPublished: a hand-driven root runs one task that reschedules itself
// (a whole scheduler run per iteration: pick, run, history, statistics),
// beside BM_PublishPair, the publication stores of one run alone
// (`runStarted` and `runEnded`), so `publish_ns` reads as a share of
// `run_ns`. Both in thread CPU time.
//
// BM_SentinelIdleCpu: the sentinel's own CPU time (from
// /proc/self/task/<tid>/schedstat) while it watches 16 roots whose threads
// run nothing, over 3 seconds at the default options; `cpu_pct` is its share
// of one core.
//
// BM_TimeToFirstBacktrace: a thread spins in a task past a 20 ms threshold;
// `first_ms` is the time from the threshold crossing to the first backtrace
// in hand (mean over the stalls; `max_ms` the worst).
#include <benchmark/benchmark.h>

#include "Harness.h"

#include <Velik/StallSentinel.h>
#include <Velik/Task.h>
#include <Velik/TaskSchedulerRoot.h>

#include <dirent.h>

#include <condition_variable>
#include <fstream>
#include <mutex>
#include <thread>

namespace {

using namespace std::chrono_literals;

class Again : public Velik::Task {
  public:
    explicit Again(Velik::TaskScheduler* s) : Task(s, Velik::TaskPriority::normal, "again") {}
    void taskExecute() override { scheduleTask(); }
};

void BM_RunPublished(benchmark::State& state) {
    auto root = VelikBench::makeRoot();
    auto task = std::make_shared<Again>(root.get());
    task->scheduleTask();
    constexpr int batch = 100'000;
    double ns = 0;
    for (auto _ : state) {
        ns += VelikBench::timed([&] {
            for (int i = 0; i < batch; ++i) {
                root->handleSchedulerRun();
            }
        });
    }
    state.counters["run_ns"] = ns / (static_cast<double>(state.iterations()) * batch);
    task->unscheduleTask();
}
BENCHMARK(BM_RunPublished);

void BM_PublishPair(benchmark::State& state) {
    Velik::Impl::RunPublication publication("bench", 0, "bench");
    auto root = VelikBench::makeRoot();
    auto task = std::make_shared<Again>(root.get());
    constexpr int batch = 1'000'000;
    double ns = 0;
    for (auto _ : state) {
        ns += VelikBench::timed([&] {
            for (int i = 0; i < batch; ++i) {
                const Velik::TaskTimePoint t{Velik::TaskTimeDuration(i)};
                auto outer = publication.runStarted(task.get(), t);
                benchmark::ClobberMemory();
                publication.runEnded(outer, {task.get(), t}, t);
                benchmark::ClobberMemory();
            }
        });
    }
    state.counters["publish_ns"] = ns / (static_cast<double>(state.iterations()) * batch);
}
BENCHMARK(BM_PublishPair);

pid_t sentinelTid() {
    DIR* dir = opendir("/proc/self/task");
    pid_t found = 0;
    while (dirent* entry = readdir(dir)) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        if (std::getline(comm, name) && name == "velik-sentinel") {
            found = std::atoi(entry->d_name);
        }
    }
    closedir(dir);
    return found;
}

double threadCpuNs(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/schedstat");
    double ns = 0;
    stat >> ns;
    return ns;
}

// Threads that each made a root and wait, running nothing.
struct IdleRoots {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    int ready = 0;
    std::vector<std::thread> threads;

    explicit IdleRoots(int count) {
        for (int i = 0; i < count; ++i) {
            threads.emplace_back([this, i] {
                auto root = VelikBench::makeRoot();
                root->stallThresholdIs(0ns);
                std::unique_lock lock(mutex);
                ++ready;
                cv.notify_all();
                cv.wait(lock, [this] { return done; });
                (void)i;
            });
        }
        std::unique_lock lock(mutex);
        cv.wait(lock, [&] { return ready == count; });
    }
    ~IdleRoots() {
        {
            std::lock_guard lock(mutex);
            done = true;
        }
        cv.notify_all();
        for (auto& t : threads) {
            t.join();
        }
    }
};

void BM_SentinelIdleCpu(benchmark::State& state) {
    IdleRoots roots(16);
    Velik::watchStalls();
    const pid_t tid = sentinelTid();
    double cpu = 0, wall = 0;
    for (auto _ : state) {
        const double before = threadCpuNs(tid);
        const auto start = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(3s);
        wall += std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
                    .count();
        cpu += threadCpuNs(tid) - before;
    }
    Velik::stopWatchingStalls();
    state.counters["cpu_pct"] = cpu / wall * 100;
    state.counters["cpu_us_per_s"] = cpu / wall * 1e6;
}
BENCHMARK(BM_SentinelIdleCpu)->Iterations(1)->Unit(benchmark::kMillisecond);

class Spin : public Velik::Task {
  public:
    explicit Spin(Velik::TaskScheduler* s) : Task(s, Velik::TaskPriority::normal, "spin") {}
    void taskExecute() override {
        const auto until = std::chrono::steady_clock::now() + 60ms;
        while (std::chrono::steady_clock::now() < until) {
        }
    }
};

void BM_TimeToFirstBacktrace(benchmark::State& state) {
    std::mutex mutex;
    std::vector<double> delays;
    Velik::StallOptions options;
    options.threshold = 20ms;
    options.interval = 20ms;
    options.callback = [&](Velik::StallEvent event, const Velik::StallRecord& record) {
        if (event == Velik::StallEvent::started && !record.samples.empty()) {
            std::lock_guard lock(mutex);
            delays.push_back(std::chrono::duration<double, std::milli>(
                                 record.samples.front().takenAt - (record.start + record.threshold))
                                 .count());
        }
    };
    Velik::watchStalls(options);
    for (auto _ : state) {
        std::thread([] {
            auto root = VelikBench::makeRoot();
            auto task = std::make_shared<Spin>(root.get());
            task->scheduleTask();
            root->handleSchedulerRun();
        }).join();
        std::this_thread::sleep_for(30ms);  // the end is seen, the next stall is new
    }
    Velik::stopWatchingStalls();
    double sum = 0, worst = 0;
    for (double d : delays) {
        sum += d;
        worst = std::max(worst, d);
    }
    state.counters["stalls"] = static_cast<double>(delays.size());
    state.counters["first_ms"] = delays.empty() ? 0 : sum / static_cast<double>(delays.size());
    state.counters["max_ms"] = worst;
}
BENCHMARK(BM_TimeToFirstBacktrace)->Iterations(20)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
