// One deferred-callback round trip through `LibeventCallbackControl` (a
// handler that asks again from inside `callback()`) against the same loop
// driven by a bare libevent zero-time-out timer re-added from its own
// callback. Both run on the thread's base through `doLeEventLoop()`, in
// batches of 1000 round trips, and report CPU time per round trip; the third
// benchmark interleaves the two batch by batch and reports both figures
// (nanoseconds) and their ratio.
#include <benchmark/benchmark.h>

#include "Harness.h"

#include <Velik/LibeventFactory.h>
#include <Velik/Thread.h>

namespace {

using VelikBench::timedBatch;

constexpr int batch = 1000;
constexpr int roundTripsPerBatch = batch;

// The control under test: the harness's requester, which on this thread
// (thread-local singletons) gets `LibeventCallbackControl` and loops with
// `doLeEventLoop()`.
struct Requester : VelikBench::Requester {
    // Inside the class `batch` names the base's member.
    Requester() : VelikBench::Requester(roundTripsPerBatch) {}
};

// The reference: a bare event at the same priority doing the same.
struct BareTimer {
    event ev;
    int remaining = 0;
    BareTimer() {
        Velik::leInit();
        event_assign(&ev, Velik::leEventBase(), -1, 0, fire, this);
        event_priority_set(&ev, Velik::Platform::eventPriorityDefault);
    }
    ~BareTimer() { event_del(&ev); }
    static void fire(evutil_socket_t, short, void* arg) {
        auto* self = static_cast<BareTimer*>(arg);
        if (--self->remaining > 0) {
            static const timeval zero{0, 0};
            event_add(&self->ev, &zero);
        }
    }
    void runBatch() {
        remaining = batch;
        static const timeval zero{0, 0};
        event_add(&ev, &zero);
        Velik::doLeEventLoop();
    }
};

template <typename Runner>
void roundTrips(benchmark::State& state) {
    Velik::useThreadLocalSingletons();
    Runner runner;
    double cpuNs = 0;
    for (auto _ : state) {
        cpuNs += timedBatch(runner);
    }
    state.counters["ns_per_roundtrip"] = cpuNs / (static_cast<double>(state.iterations()) * batch);
}

void BM_BareLibeventTimer(benchmark::State& state) {
    roundTrips<BareTimer>(state);
}
BENCHMARK(BM_BareLibeventTimer);

void BM_LibeventCallbackControl(benchmark::State& state) {
    roundTrips<Requester>(state);
}
BENCHMARK(BM_LibeventCallbackControl);

// Alternating batches share whatever else the machine is doing; they are
// timed in thread CPU time, which a busy shared machine disturbs far less
// than wall time.
void BM_ControlOverBare(benchmark::State& state) {
    Velik::useThreadLocalSingletons();
    Requester requester;
    BareTimer timer;
    double controlNs = 0, bareNs = 0;
    for (auto _ : state) {
        bareNs += timedBatch(timer);
        controlNs += timedBatch(requester);
    }
    double roundTrips = static_cast<double>(state.iterations()) * batch;
    state.counters["bare_ns"] = bareNs / roundTrips;
    state.counters["control_ns"] = controlNs / roundTrips;
    state.counters["ratio"] = controlNs / bareNs;
}
BENCHMARK(BM_ControlOverBare);

}  // namespace

BENCHMARK_MAIN();
