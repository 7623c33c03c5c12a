// Timer tasks at scale, each figure beside its libevent peer of the same run.
//
//   Hour/<platform>      1000 timer tasks, each re-arming itself one second
//                        after every run, for one hour of virtual time: the
//                        wall time of that hour (3.6 million runs and timer
//                        starts), and `cpu_s`, the CPU time of the thread
//                        that ran it. The framework side runs on the main thread
//                        under the framework's virtual time, the libevent side
//                        on a thread with thread-local singletons under
//                        libevent fast-forward.
//   TimerTask/Restart    re-arm a random timing task among n to a new random
//                        delay (`scheduleTaskDelay`), time per op;
//   Libevent/Restart     the peer: `event_add` on a random pending libevent
//                        timer among n (re-adding replaces its expiry);
//   TimerTask/StartStop  arm one more task and stop it again while the n stay
//                        armed (`scheduleTaskDelay` + `stopTimerTask`);
//   Libevent/StartStop   the peer: `event_add` + `event_del`.
//
// The scale benchmarks run on the main thread's root (framework platform;
// start, restart and stop touch only the wheel, not the platform), the
// libevent peer on an event base of its own; n = 1 thousand, 100 thousand and
// 1 million, delays random up to 60 s. bytes_per_timer counts what the allocator hands out per
// timer (object, shared-pointer control block) plus the wheel's share.
#include "Harness.h"

#include <Velik/FastForward.h>
#include <Velik/PlatformSelection.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/Thread.h>
#include <Velik/TimerTask.h>

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <malloc.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

namespace {

using namespace Velik;

constexpr double kMaxDelay = 60.0;

struct Rng {
    std::uint64_t s;
    explicit Rng(std::uint64_t seed) : s(seed | 1) {}
    std::uint64_t next() {
        s ^= s >> 12;
        s ^= s << 25;
        s ^= s >> 27;
        return s * 0x2545F4914F6CDD1Dull;
    }
    double delay() { return kMaxDelay * (static_cast<double>((next() >> 11) + 1) * 0x1p-53); }
};

std::size_t heapInUse() {
    return mallinfo2().uordblks;
}

void perOp(benchmark::State& state, double bytesPerTimer) {
    state.counters["sec_per_op"] = benchmark::Counter(
        1, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["bytes_per_timer"] = bytesPerTimer;
}

// Re-arms itself one second after each run.
class Periodic : public TimerTask {
  public:
    Periodic(TaskScheduler* scheduler, std::uint64_t* runs)
        : TimerTask(scheduler, TaskPriority::normal, "periodic"), runs_(runs) {}
    void taskExecute() override {
        ++*runs_;
        scheduleTaskDelay(1.0);
    }

  private:
    std::uint64_t* runs_;
};

// One hour of 1000 periodic tasks on the calling thread's root.
std::uint64_t runHour() {
    auto root = schedulerRootVelik();
    std::uint64_t runs = 0;
    std::vector<std::shared_ptr<Periodic>> tasks;
    for (int i = 0; i < 1000; ++i) {
        tasks.push_back(std::make_shared<Periodic>(root.get(), &runs));
        tasks.back()->scheduleTaskJitterUp(1.0, 100);
    }
    Platform::doEventLoop(3600.0);
    for (auto& task : tasks) {
        task->stopTimerTask();
    }
    return runs;
}

// The CPU column is the main thread's, which only waits for the libevent
// side: `cpu_s` is the CPU time of the thread that ran the hour.
void hour(benchmark::State& state, bool libevent) {
    std::uint64_t runs = 0;
    double cpuNs = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        if (libevent) {
            std::thread([&] {
                useThreadLocalSingletons();
                cpuNs += VelikBench::timed([&] { runs = runHour(); });
            }).join();
        } else {
            cpuNs += VelikBench::timed([&] { runs = runHour(); });
        }
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.counters["runs"] = static_cast<double>(runs);
    state.counters["cpu_s"] = cpuNs / 1e9 / static_cast<double>(state.iterations());
}

// ----------------------------------------------------------------- at scale

class Idle : public TimerTask {
  public:
    explicit Idle(TaskScheduler* scheduler) : TimerTask(scheduler, TaskPriority::normal, "t") {}
    void taskExecute() override {}
};

struct TaskPop {
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootVelik();
    std::vector<std::shared_ptr<Idle>> tasks;
    std::shared_ptr<Idle> extra = std::make_shared<Idle>(root.get());
    double bytesPerTimer = 0;
    std::size_t size;

    explicit TaskPop(std::size_t n) : size(n) {
        tasks.reserve(n);
        Rng rng(1);
        const std::size_t before = heapInUse();
        for (std::size_t i = 0; i < n; ++i) {
            tasks.push_back(std::make_shared<Idle>(root.get()));
            tasks.back()->scheduleTaskDelay(rng.delay());
        }
        bytesPerTimer = static_cast<double>(heapInUse() - before) / static_cast<double>(n);
    }
    ~TaskPop() {
        for (auto& task : tasks) {
            task->stopTimerTask();
        }
    }
};

struct EventPop {
    event_base* base = event_base_new();
    std::vector<event*> events;
    event* extra = evtimer_new(
        base, [](evutil_socket_t, short, void*) {}, nullptr);
    double bytesPerTimer = 0;
    std::size_t size;

    explicit EventPop(std::size_t n) : size(n) {
        events.reserve(n);
        Rng rng(1);
        const std::size_t before = heapInUse();
        for (std::size_t i = 0; i < n; ++i) {
            events.push_back(evtimer_new(
                base, [](evutil_socket_t, short, void*) {}, nullptr));
            timeval tv = toTimeval(rng.delay());
            evtimer_add(events.back(), &tv);
        }
        bytesPerTimer = static_cast<double>(heapInUse() - before) / static_cast<double>(n);
    }
    ~EventPop() {
        for (event* ev : events) {
            event_free(ev);
        }
        event_free(extra);
        event_base_free(base);
    }
    static timeval toTimeval(double s) {
        timeval tv;
        tv.tv_sec = static_cast<time_t>(s);
        tv.tv_usec = static_cast<suseconds_t>((s - static_cast<double>(tv.tv_sec)) * 1e6);
        return tv;
    }
};

// One population of each kind is alive at a time, built on first use and
// freed before the thread's string cache goes at exit.
template <typename Pop>
std::unique_ptr<Pop> g_population;

template <typename Pop>
Pop& population(std::size_t n) {
    auto& pop = g_population<Pop>;
    if (!pop || pop->size != n) {
        pop.reset();
        pop = std::make_unique<Pop>(n);
    }
    return *pop;
}

void taskRestart(benchmark::State& state) {
    auto& pop = population<TaskPop>(state.range(0));
    Rng rng(2);
    for (auto _ : state) {
        pop.tasks[rng.next() % pop.tasks.size()]->scheduleTaskDelay(rng.delay());
    }
    perOp(state, pop.bytesPerTimer);
}

void libeventRestart(benchmark::State& state) {
    auto& pop = population<EventPop>(state.range(0));
    Rng rng(2);
    for (auto _ : state) {
        timeval tv = EventPop::toTimeval(rng.delay());
        evtimer_add(pop.events[rng.next() % pop.events.size()], &tv);
    }
    perOp(state, pop.bytesPerTimer);
}

void taskStartStop(benchmark::State& state) {
    auto& pop = population<TaskPop>(state.range(0));
    Rng rng(3);
    for (auto _ : state) {
        pop.extra->scheduleTaskDelay(rng.delay());
        pop.extra->stopTimerTask();
    }
    perOp(state, pop.bytesPerTimer);
}

void libeventStartStop(benchmark::State& state) {
    auto& pop = population<EventPop>(state.range(0));
    Rng rng(3);
    for (auto _ : state) {
        timeval tv = EventPop::toTimeval(rng.delay());
        evtimer_add(pop.extra, &tv);
        evtimer_del(pop.extra);
    }
    perOp(state, pop.bytesPerTimer);
}

void registerAll() {
    Platform::setFastForward(true);
    setLeFastForward(true);
    benchmark::RegisterBenchmark("Hour/Framework", hour, false)
        ->UseManualTime()
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Hour/Libevent", hour, true)
        ->UseManualTime()
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
    for (std::int64_t n : {1'000, 100'000, 1'000'000}) {
        // Each pair alternates task and libevent so both see the same load.
        benchmark::RegisterBenchmark("TimerTask/Restart", taskRestart)->Arg(n)->MinTime(0.25);
        benchmark::RegisterBenchmark("Libevent/Restart", libeventRestart)->Arg(n)->MinTime(0.25);
        benchmark::RegisterBenchmark("TimerTask/StartStop", taskStartStop)->Arg(n)->MinTime(0.25);
        benchmark::RegisterBenchmark("Libevent/StartStop", libeventStartStop)
            ->Arg(n)
            ->MinTime(0.25);
    }
}

}  // namespace

int main(int argc, char** argv) {
    registerAll();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    g_population<TaskPop>.reset();
    g_population<EventPop>.reset();
    benchmark::Shutdown();
    return 0;
}
