// Work posted across threads: a post and its wake-up between two threads
// (round-trip latency, throughput), beside a bare eventfd ping-pong and a
// mutex + condition-variable queue; and a post to a thread that already has
// a wake-up pending, which costs no system call.
#include "Harness.h"

#include <Velik/Inbox.h>
#include <Velik/Thread.h>

#include <benchmark/benchmark.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using namespace Velik;
using Clock = std::chrono::steady_clock;

// Latency percentiles as counters, in nanoseconds.
void percentiles(benchmark::State& state, std::vector<double>& samples) {
    if (samples.empty()) {
        return;
    }
    std::sort(samples.begin(), samples.end());
    state.counters["p50_ns"] = samples[samples.size() / 2];
    state.counters["p99_ns"] = samples[samples.size() * 99 / 100];
}

double nsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// A thread running a libevent loop with an inbox until stopped.
class Echo {
  public:
    Echo()
        : thread_([this] {
              useThreadLocalSingletons();
              ready_.set_value(inbox());
              Platform::doEventLoop();
          }),
          box_(ready_.get_future().get()) {}
    ~Echo() {
        stopEventLoop(box_);
        thread_.join();
    }
    const std::shared_ptr<Inbox>& box() const { return box_; }

  private:
    std::promise<std::shared_ptr<Inbox>> ready_;
    std::thread thread_;
    std::shared_ptr<Inbox> box_;
};

// The bench thread's own libevent loop and inbox, made once.
const std::shared_ptr<Inbox>& homeInbox() {
    static const std::shared_ptr<Inbox> home = [] {
        useThreadLocalSingletons();
        return inbox();
    }();
    return home;
}

void BM_PostRoundTrip(benchmark::State& state) {
    const std::shared_ptr<Inbox>& home = homeInbox();
    Echo echo;
    std::vector<double> samples;
    for (auto _ : state) {
        const auto start = Clock::now();
        post(echo.box(), TaskPriority::normal, "ping", [&home] {
            post(home, TaskPriority::normal, "pong", [] { Platform::stopEventLoop(); });
        });
        Platform::doEventLoop();
        const double ns = nsSince(start);
        samples.push_back(ns);
        state.SetIterationTime(ns * 1e-9);
    }
    percentiles(state, samples);
}
BENCHMARK(BM_PostRoundTrip)->UseManualTime();

void BM_EventfdPingPong(benchmark::State& state) {
    const int ping = eventfd(0, EFD_CLOEXEC);
    const int pong = eventfd(0, EFD_CLOEXEC);
    std::thread echo([&] {
        std::uint64_t value = 0;
        while (read(ping, &value, sizeof(value)) == sizeof(value) && value != 2) {
            const std::uint64_t one = 1;
            benchmark::DoNotOptimize(write(pong, &one, sizeof(one)));
        }
    });
    std::vector<double> samples;
    for (auto _ : state) {
        const auto start = Clock::now();
        const std::uint64_t one = 1;
        std::uint64_t value = 0;
        benchmark::DoNotOptimize(write(ping, &one, sizeof(one)));
        benchmark::DoNotOptimize(read(pong, &value, sizeof(value)));
        const double ns = nsSince(start);
        samples.push_back(ns);
        state.SetIterationTime(ns * 1e-9);
    }
    const std::uint64_t quit = 2;
    benchmark::DoNotOptimize(write(ping, &quit, sizeof(quit)));
    echo.join();
    close(ping);
    close(pong);
    percentiles(state, samples);
}
BENCHMARK(BM_EventfdPingPong)->UseManualTime();

// A queue of functions under a mutex, its consumer woken by a condition
// variable: the usual hand-made alternative.
class CvQueue {
  public:
    void push(std::function<void()> work) {
        {
            std::lock_guard lock(mutex_);
            queue_.push_back(std::move(work));
        }
        ready_.notify_one();
    }
    // Runs items until one returns with `done_` set.
    void serve() {
        std::unique_lock lock(mutex_);
        while (!done_) {
            ready_.wait(lock, [this] { return !queue_.empty(); });
            while (!queue_.empty()) {
                auto work = std::move(queue_.front());
                queue_.pop_front();
                lock.unlock();
                work();
                lock.lock();
            }
        }
        done_ = false;
    }
    void done() { done_ = true; }  // from an item, under `serve()`'s watch

  private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> queue_;
    bool done_ = false;
};

void BM_MutexCvRoundTrip(benchmark::State& state) {
    CvQueue toEcho;
    CvQueue toHome;
    std::thread echo([&] { toEcho.serve(); });
    std::vector<double> samples;
    for (auto _ : state) {
        const auto start = Clock::now();
        toEcho.push([&] { toHome.push([&] { toHome.done(); }); });
        toHome.serve();
        const double ns = nsSince(start);
        samples.push_back(ns);
        state.SetIterationTime(ns * 1e-9);
    }
    toEcho.push([&] { toEcho.done(); });
    echo.join();
    percentiles(state, samples);
}
BENCHMARK(BM_MutexCvRoundTrip)->UseManualTime();

constexpr int throughputBatch = 10000;

// A batch posted to another thread until its last item ran there.
void BM_PostThroughput(benchmark::State& state) {
    Echo echo;
    for (auto _ : state) {
        std::promise<void> finished;
        int ran = 0;
        for (int i = 0; i < throughputBatch; ++i) {
            post(echo.box(), TaskPriority::normal, "item", [&] {
                if (++ran == throughputBatch) {
                    finished.set_value();
                }
            });
        }
        finished.get_future().wait();
    }
    state.SetItemsProcessed(state.iterations() * throughputBatch);
}
BENCHMARK(BM_PostThroughput)->UseRealTime();

void BM_MutexCvThroughput(benchmark::State& state) {
    CvQueue queue;
    std::thread consumer([&] { queue.serve(); });
    for (auto _ : state) {
        std::promise<void> finished;
        int ran = 0;
        for (int i = 0; i < throughputBatch; ++i) {
            queue.push([&] {
                if (++ran == throughputBatch) {
                    finished.set_value();
                }
            });
        }
        finished.get_future().wait();
    }
    queue.push([&] { queue.done(); });
    consumer.join();
    state.SetItemsProcessed(state.iterations() * throughputBatch);
}
BENCHMARK(BM_MutexCvThroughput)->UseRealTime();

// The target has a wake-up pending (its loop has not drained yet), so a post
// only queues: no eventfd write. Drained every so often, untimed, to keep
// the queue's memory bounded.
void BM_PostNoWakeUp(benchmark::State& state) {
    const std::shared_ptr<Inbox>& home = homeInbox();
    const std::uint64_t wakeUps = home->wakeUpCount();
    int sinceDrain = 0;
    for (auto _ : state) {
        post(home, TaskPriority::normal, "queued", [] {});
        if (++sinceDrain == 1 << 16) {
            state.PauseTiming();
            post(home, TaskPriority::normal, "queued", [] { Platform::stopEventLoop(); });
            Platform::doEventLoop();
            sinceDrain = 0;
            state.ResumeTiming();
        }
    }
    state.counters["wakeUps"] = static_cast<double>(home->wakeUpCount() - wakeUps);
    post(home, TaskPriority::normal, "queued", [] { Platform::stopEventLoop(); });
    Platform::doEventLoop();
}
BENCHMARK(BM_PostNoWakeUp);

}  // namespace

BENCHMARK_MAIN();
