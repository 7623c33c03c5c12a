// One deferred-callback round trip (a handler that asks again from inside
// `callback()`) on each platform: `KivVelik::Callback` on the framework's main
// loop, run by this program's main thread, and `LibeventCallbackControl` on
// a worker thread with thread-local singletons. Both controls come from
// `Platform::getCallbackControl`, run batches of 1000 round trips through
// `Platform::doEventLoop()`, and are timed in the CPU time of the thread
// that runs them; the third benchmark alternates the two batch by batch and
// reports both figures (nanoseconds per round trip) and the ratio
// framework / libevent.
#include <benchmark/benchmark.h>

#include <Velik/LibeventFactory.h>
#include <Velik/PlatformSelection.h>
#include <Velik/Thread.h>

#include <time.h>

#include <condition_variable>
#include <memory>
#include <mutex>

#include <thread>
#include "Harness.h"

namespace {

using VelikBench::Requester;
using VelikBench::timedBatch;

constexpr int batch = 1000;

// The libevent side: a thread with thread-local singletons that runs one
// batch per request and hands back its CPU time.
class LibeventWorker {
  public:
    LibeventWorker() : thread_([this] { serve(); }) {}
    ~LibeventWorker() {
        {
            std::lock_guard guard(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }

    double timedBatch() {
        std::unique_lock guard(mutex_);
        requested_ = true;
        wake_.notify_all();
        wake_.wait(guard, [this] { return !requested_; });
        return resultNs_;
    }

  private:
    void serve() {
        Velik::useThreadLocalSingletons();
        {
            Requester requester(batch);
            std::unique_lock guard(mutex_);
            for (;;) {
                wake_.wait(guard, [this] { return requested_ || stop_; });
                if (stop_) {
                    break;
                }
                resultNs_ = ::timedBatch(requester);
                requested_ = false;
                wake_.notify_all();
            }
        }
        Velik::leFree();
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    bool requested_ = false;
    bool stop_ = false;
    double resultNs_ = 0;
    std::thread thread_;
};

LibeventWorker& libeventWorker() {
    static LibeventWorker worker;
    return worker;
}

// Made on first use by the main thread, which runs the framework loop.
Requester& kivRequester() {
    static Requester requester(batch);
    return requester;
}

void BM_KivCallback(benchmark::State& state) {
    Requester& requester = kivRequester();
    double cpuNs = 0;
    for (auto _ : state) {
        cpuNs += timedBatch(requester);
    }
    state.counters["ns_per_roundtrip"] = cpuNs / (static_cast<double>(state.iterations()) * batch);
}
BENCHMARK(BM_KivCallback);

void BM_LibeventCallbackControl(benchmark::State& state) {
    LibeventWorker& worker = libeventWorker();
    double cpuNs = 0;
    for (auto _ : state) {
        cpuNs += worker.timedBatch();
    }
    state.counters["ns_per_roundtrip"] = cpuNs / (static_cast<double>(state.iterations()) * batch);
}
BENCHMARK(BM_LibeventCallbackControl);

// Alternating batches share whatever else the machine is doing; thread CPU
// time is far less disturbed by a busy shared machine than wall time.
void BM_KivOverLibevent(benchmark::State& state) {
    Requester& requester = kivRequester();
    LibeventWorker& worker = libeventWorker();
    double kivNs = 0, libeventNs = 0;
    for (auto _ : state) {
        libeventNs += worker.timedBatch();
        kivNs += timedBatch(requester);
    }
    double roundTrips = static_cast<double>(state.iterations()) * batch;
    state.counters["kiv_ns"] = kivNs / roundTrips;
    state.counters["libevent_ns"] = libeventNs / roundTrips;
    state.counters["ratio"] = kivNs / libeventNs;
}
BENCHMARK(BM_KivOverLibevent);

}  // namespace

BENCHMARK_MAIN();
