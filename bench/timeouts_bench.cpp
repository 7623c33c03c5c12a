// Scale benchmark of the timing-wheel library (Velik/Timeouts.h) against
// libevent's timer min-heap and libuv's timer heap, side by side.
//
// Populations of 1 thousand, 100 thousand and 1 million armed timers with
// random delays up to 60 s (the wheel at 100 ticks per second: 1..6000 ticks;
// libevent: microsecond delays; libuv: millisecond delays, its own unit). One
// population per (backend, size) is built once and shared by that backend's
// benchmarks of that size (they are registered in that order).
//
// Operations, one benchmark each:
//   Restart   re-arm a random armed timer to a new random delay (time per op);
//   RestartSeq the same, re-arming the timers in array order: the timer's own
//             record is then usually in cache (hardware prefetch), as when the
//             application has just touched the object that embeds it; this
//             separates the structure's cost from the record's cache miss;
//   StartStop start an extra (unarmed) timer and stop it again, while the
//             population stays armed (time per pair);
//   Expire    deliver the whole population (items_per_second = timers
//             delivered per second; sec_per_timer).
//     Wheel:  arm every timer 1..6000 ticks ahead, then drive the wheel like an
//             event loop does: drain timeouts_get(), advance by
//             timeouts_timeout() with timeouts_update(), until nothing is
//             pending (every tick with a timer and every cascade is a step).
//     WheelJump: the same population released by one timeouts_update() 6000
//             ticks ahead, then drained.
//     libevent / libuv: neither has a virtual clock, so the fair equivalent is:
//             arm every timer with a random delay below 20 ms (distinct keys:
//             microseconds for libevent, milliseconds plus libuv's start-order
//             tie-break), sleep (untimed) until all are due, then time
//             event_base_loop(EVLOOP_NONBLOCK) / uv_run(UV_RUN_NOWAIT) until
//             every callback ran. This times the heap pops of a fully random
//             heap of n timers and the callback dispatch, as a real expiry does;
//             the span of the delays does not change a heap's cost.
// Re-arming for Expire is outside the timed region (PauseTiming).
//
// Counters: sec_per_op (Restart, StartStop; shown with an SI prefix, e.g.
// "25n" = 25 ns), sec_per_timer and items_per_second (Expire),
// bytes_per_timer: the record (sizeof struct timeout / event_get_struct_event_size()
// / sizeof uv_timer_t) plus the structure's share per timer: the wheel's fixed
// size (timeouts_footprint()) / n; libevent's heap array of event pointers
// (8 bytes per capacity slot, capacity doubling from 8); libuv's heap is
// intrusive (nodes inside the handles), plus sizeof(uv_loop_t) / n.
//
// Times are CPU time of the benchmark thread (the build machine is shared;
// wall time there includes waiting for a core).
//
// Note on clocks: libevent's event_add() outside its loop reads the monotonic
// clock for every relative timeout; libuv uses its cached loop time; the wheel
// uses its own current tick. ClockGettime measures that clock read.

#include "Velik/Timeouts.h"

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <uv.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

// Seconds per operation and the memory each armed timer takes.
void reportPerOp(benchmark::State& state, double bytesPerTimer) {
    state.counters["sec_per_op"] = benchmark::Counter(
        1, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["bytes_per_timer"] = bytesPerTimer;
}

constexpr size_t kExtra = 1024;          // unarmed timers for StartStop
constexpr uint64_t kMaxTicks = 6000;     // 60 s at 100 Hz
constexpr uint64_t kMaxUs = 60'000'000;  // 60 s
constexpr uint64_t kMaxMs = 60'000;      // 60 s
constexpr uint64_t kExpireSpanUs = 20'000;
constexpr uint64_t kExpireSpanMs = 20;

struct Rng {
    uint64_t s;
    explicit Rng(uint64_t seed) : s(seed | 1) {}
    uint64_t next() {
        s ^= s >> 12;
        s ^= s << 25;
        s ^= s >> 27;
        return s * 0x2545F4914F6CDD1Dull;
    }
    // Uniform in [0, n) by multiply-high.
    uint64_t below(uint64_t n) {
        return static_cast<uint64_t>((static_cast<unsigned __int128>(next()) * n) >> 64);
    }
};

// One population is alive at a time.
struct Population {
    virtual ~Population() = default;
    std::string kind;
    size_t n = 0;
    bool armed = false;
};
std::unique_ptr<Population> g_pop;

template <class P>
P& population(size_t n) {
    auto* p = dynamic_cast<P*>(g_pop.get());
    if (p == nullptr || p->n != n || !p->armed) {
        g_pop.reset();  // free the previous one first
        g_pop = std::make_unique<P>(n);
        p = static_cast<P*>(g_pop.get());
    }
    return *p;
}

// ---------------------------------------------------------------- wheel ----

struct WheelPop : Population {
    timeouts* T;
    std::vector<timeout> recs;
    std::vector<timeout> extra;
    explicit WheelPop(size_t count) : recs(count), extra(kExtra) {
        n = count;
        int err = 0;
        T = timeouts_open(100, &err);
        if (T == nullptr) {
            std::fprintf(stderr, "timeouts_open failed: %d\n", err);
            std::abort();
        }
        Rng rng(1);
        for (auto& r : recs) {
            timeout_init(&r, 0);
            timeouts_add(T, &r, 1 + rng.below(kMaxTicks));
        }
        for (auto& r : extra) {
            timeout_init(&r, 0);
        }
        armed = true;
    }
    ~WheelPop() override { timeouts_close(T); }
    double bytesPerTimer() const {
        return sizeof(timeout) + static_cast<double>(timeouts_footprint()) / static_cast<double>(n);
    }
};

void wheelRestart(benchmark::State& state, bool seq) {
    auto& P = population<WheelPop>(state.range(0));
    Rng rng(2);
    size_t k = 0;
    for (auto _ : state) {
        const size_t i = seq ? (k = k + 1 == P.n ? 0 : k + 1) : rng.below(P.n);
        timeouts_add(P.T, &P.recs[i], 1 + rng.below(kMaxTicks));
    }
    reportPerOp(state, P.bytesPerTimer());
}

void wheelStartStop(benchmark::State& state) {
    auto& P = population<WheelPop>(state.range(0));
    Rng rng(3);
    size_t j = 0;
    for (auto _ : state) {
        timeout* to = &P.extra[j++ & (kExtra - 1)];
        timeouts_add(P.T, to, 1 + rng.below(kMaxTicks));
        timeouts_del(P.T, to);
    }
    reportPerOp(state, P.bytesPerTimer());
}

void wheelExpire(benchmark::State& state, bool jump) {
    auto& P = population<WheelPop>(state.range(0));
    Rng rng(4);
    size_t delivered = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (auto& r : P.recs) {
            timeouts_add(P.T, &r, 1 + rng.below(kMaxTicks));
        }
        state.ResumeTiming();
        size_t got = 0;
        if (jump) {
            timeouts_update(P.T, timeouts_now(P.T) + kMaxTicks);
            while (timeout* to = timeouts_get(P.T)) {
                benchmark::DoNotOptimize(to);
                ++got;
            }
        } else {
            for (;;) {
                while (timeout* to = timeouts_get(P.T)) {
                    benchmark::DoNotOptimize(to);
                    ++got;
                }
                const timeout_t t = timeouts_timeout(P.T);
                if (t == TIMEOUT_NEVER) {
                    break;
                }
                timeouts_update(P.T, timeouts_now(P.T) + t);
            }
        }
        delivered += got;
        if (got != P.n) {
            state.SkipWithError("wheel did not deliver the whole population");
            break;
        }
    }
    P.armed = false;  // the population is spent
    state.SetItemsProcessed(static_cast<int64_t>(delivered));
    state.counters["sec_per_timer"] =
        benchmark::Counter(static_cast<double>(P.n), benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
    state.counters["bytes_per_timer"] = P.bytesPerTimer();
}

// ------------------------------------------------------------- libevent ----

void evCallback(evutil_socket_t, short, void* arg) {
    ++*static_cast<size_t*>(arg);
}

timeval usToTv(uint64_t us) {
    timeval tv;
    tv.tv_sec = static_cast<time_t>(us / 1'000'000);
    tv.tv_usec = static_cast<suseconds_t>(us % 1'000'000);
    return tv;
}

struct EventPop : Population {
    event_base* base;
    std::unique_ptr<event[]> evs;
    std::unique_ptr<event[]> extra;
    size_t fired = 0;
    explicit EventPop(size_t count) : evs(new event[count]), extra(new event[kExtra]) {
        n = count;
        base = event_base_new();
        if (base == nullptr) {
            std::abort();
        }
        Rng rng(1);
        for (size_t i = 0; i < n; ++i) {
            event_assign(&evs[i], base, -1, 0, evCallback, &fired);
            const timeval tv = usToTv(1 + rng.below(kMaxUs));
            event_add(&evs[i], &tv);
        }
        for (size_t i = 0; i < kExtra; ++i) {
            event_assign(&extra[i], base, -1, 0, evCallback, &fired);
        }
        armed = true;
    }
    ~EventPop() override {
        for (size_t i = 0; i < n; ++i) {
            event_del(&evs[i]);
        }
        event_base_free(base);
    }
    double bytesPerTimer() const {
        size_t cap = 8;
        while (cap < n) {
            cap *= 2;
        }
        return static_cast<double>(event_get_struct_event_size()) +
               8.0 * static_cast<double>(cap) / static_cast<double>(n);
    }
};

void eventRestart(benchmark::State& state, bool seq) {
    auto& P = population<EventPop>(state.range(0));
    Rng rng(2);
    size_t k = 0;
    for (auto _ : state) {
        const size_t i = seq ? (k = k + 1 == P.n ? 0 : k + 1) : rng.below(P.n);
        const timeval tv = usToTv(1 + rng.below(kMaxUs));
        event_add(&P.evs[i], &tv);
    }
    reportPerOp(state, P.bytesPerTimer());
}

void eventStartStop(benchmark::State& state) {
    auto& P = population<EventPop>(state.range(0));
    Rng rng(3);
    size_t j = 0;
    for (auto _ : state) {
        event* ev = &P.extra[j++ & (kExtra - 1)];
        const timeval tv = usToTv(1 + rng.below(kMaxUs));
        event_add(ev, &tv);
        event_del(ev);
    }
    reportPerOp(state, P.bytesPerTimer());
}

void eventExpire(benchmark::State& state) {
    auto& P = population<EventPop>(state.range(0));
    Rng rng(4);
    size_t delivered = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (size_t i = 0; i < P.n; ++i) {
            const timeval tv = usToTv(rng.below(kExpireSpanUs));
            event_add(&P.evs[i], &tv);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(kExpireSpanUs + 1000));
        P.fired = 0;
        state.ResumeTiming();
        int loops = 0;
        while (P.fired < P.n && ++loops < 1000) {
            event_base_loop(P.base, EVLOOP_NONBLOCK);
        }
        delivered += P.fired;
        if (P.fired != P.n) {
            state.SkipWithError("libevent did not deliver the whole population");
            break;
        }
    }
    P.armed = false;
    state.SetItemsProcessed(static_cast<int64_t>(delivered));
    state.counters["sec_per_timer"] =
        benchmark::Counter(static_cast<double>(P.n), benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
    state.counters["bytes_per_timer"] = P.bytesPerTimer();
}

// ---------------------------------------------------------------- libuv ----

void uvCallback(uv_timer_t* h) {
    ++*static_cast<size_t*>(h->loop->data);
}

struct UvPop : Population {
    uv_loop_t loop;
    std::unique_ptr<uv_timer_t[]> timers;
    std::unique_ptr<uv_timer_t[]> extra;
    size_t fired = 0;
    explicit UvPop(size_t count) : timers(new uv_timer_t[count]), extra(new uv_timer_t[kExtra]) {
        n = count;
        if (uv_loop_init(&loop) != 0) {
            std::abort();
        }
        loop.data = &fired;
        Rng rng(1);
        for (size_t i = 0; i < n; ++i) {
            uv_timer_init(&loop, &timers[i]);
            uv_timer_start(&timers[i], uvCallback, 1 + rng.below(kMaxMs), 0);
        }
        for (size_t i = 0; i < kExtra; ++i) {
            uv_timer_init(&loop, &extra[i]);
        }
        armed = true;
    }
    ~UvPop() override {
        for (size_t i = 0; i < n; ++i) {
            uv_close(reinterpret_cast<uv_handle_t*>(&timers[i]), nullptr);
        }
        for (size_t i = 0; i < kExtra; ++i) {
            uv_close(reinterpret_cast<uv_handle_t*>(&extra[i]), nullptr);
        }
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
    }
    double bytesPerTimer() const {
        return sizeof(uv_timer_t) + static_cast<double>(sizeof(uv_loop_t)) / static_cast<double>(n);
    }
};

void uvRestart(benchmark::State& state, bool seq) {
    auto& P = population<UvPop>(state.range(0));
    Rng rng(2);
    size_t k = 0;
    for (auto _ : state) {
        const size_t i = seq ? (k = k + 1 == P.n ? 0 : k + 1) : rng.below(P.n);
        uv_timer_start(&P.timers[i], uvCallback, 1 + rng.below(kMaxMs), 0);
    }
    reportPerOp(state, P.bytesPerTimer());
}

void uvStartStop(benchmark::State& state) {
    auto& P = population<UvPop>(state.range(0));
    Rng rng(3);
    size_t j = 0;
    for (auto _ : state) {
        uv_timer_t* t = &P.extra[j++ & (kExtra - 1)];
        uv_timer_start(t, uvCallback, 1 + rng.below(kMaxMs), 0);
        uv_timer_stop(t);
    }
    reportPerOp(state, P.bytesPerTimer());
}

void uvExpire(benchmark::State& state) {
    auto& P = population<UvPop>(state.range(0));
    Rng rng(4);
    size_t delivered = 0;
    for (auto _ : state) {
        state.PauseTiming();
        uv_update_time(&P.loop);
        for (size_t i = 0; i < P.n; ++i) {
            uv_timer_start(&P.timers[i], uvCallback, rng.below(kExpireSpanMs), 0);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kExpireSpanMs + 2));
        P.fired = 0;
        state.ResumeTiming();
        int loops = 0;
        while (P.fired < P.n && ++loops < 1000) {
            uv_run(&P.loop, UV_RUN_NOWAIT);
        }
        delivered += P.fired;
        if (P.fired != P.n) {
            state.SkipWithError("libuv did not deliver the whole population");
            break;
        }
    }
    P.armed = false;
    state.SetItemsProcessed(static_cast<int64_t>(delivered));
    state.counters["sec_per_timer"] =
        benchmark::Counter(static_cast<double>(P.n), benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
    state.counters["bytes_per_timer"] = P.bytesPerTimer();
}

// ------------------------------------------------------------ reference ----

// The floor of any "re-arm a random timer" operation: read and write one
// random 40-byte record among n (a cache miss once n records outgrow the
// caches).
void touchRandomRecord(benchmark::State& state) {
    struct Rec {
        uint64_t w[5];
    };
    const size_t n = static_cast<size_t>(state.range(0));
    std::vector<Rec> recs(n, Rec{});
    Rng rng(5);
    for (auto _ : state) {
        Rec& r = recs[rng.below(n)];
        r.w[0] += r.w[4] + 1;
        benchmark::DoNotOptimize(r);
    }
    state.counters["sec_per_op"] = benchmark::Counter(
        1, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void clockGettime(benchmark::State& state) {
    timespec ts;
    for (auto _ : state) {
        clock_gettime(CLOCK_MONOTONIC, &ts);
        benchmark::DoNotOptimize(ts);
    }
}

// Registration: backend -> size -> operation, so each population is built once.
void registerAll() {
    const int64_t sizes[] = {1'000, 100'000, 1'000'000};
    auto expireIterations = [](int64_t n) -> benchmark::IterationCount {
        return n <= 1'000 ? 50 : n <= 100'000 ? 8 : 3;
    };
    const double minTime = 0.25;
    for (int64_t n : sizes) {
        benchmark::RegisterBenchmark("Wheel/Restart", wheelRestart, false)
            ->Arg(n)
            ->MinTime(minTime);
        benchmark::RegisterBenchmark("Wheel/RestartSeq", wheelRestart, true)
            ->Arg(n)
            ->MinTime(minTime);
        benchmark::RegisterBenchmark("Wheel/StartStop", wheelStartStop)->Arg(n)->MinTime(minTime);
        benchmark::RegisterBenchmark("Wheel/Expire", wheelExpire, false)
            ->Arg(n)
            ->Iterations(expireIterations(n));
        benchmark::RegisterBenchmark("Wheel/ExpireJump", wheelExpire, true)
            ->Arg(n)
            ->Iterations(expireIterations(n));
    }
    for (int64_t n : sizes) {
        benchmark::RegisterBenchmark("Libevent/Restart", eventRestart, false)
            ->Arg(n)
            ->MinTime(minTime);
        benchmark::RegisterBenchmark("Libevent/RestartSeq", eventRestart, true)
            ->Arg(n)
            ->MinTime(minTime);
        benchmark::RegisterBenchmark("Libevent/StartStop", eventStartStop)
            ->Arg(n)
            ->MinTime(minTime);
        benchmark::RegisterBenchmark("Libevent/Expire", eventExpire)
            ->Arg(n)
            ->Iterations(expireIterations(n));
    }
    for (int64_t n : sizes) {
        benchmark::RegisterBenchmark("Libuv/Restart", uvRestart, false)->Arg(n)->MinTime(minTime);
        benchmark::RegisterBenchmark("Libuv/RestartSeq", uvRestart, true)->Arg(n)->MinTime(minTime);
        benchmark::RegisterBenchmark("Libuv/StartStop", uvStartStop)->Arg(n)->MinTime(minTime);
        benchmark::RegisterBenchmark("Libuv/Expire", uvExpire)
            ->Arg(n)
            ->Iterations(expireIterations(n));
    }
    for (int64_t n : sizes) {
        benchmark::RegisterBenchmark("Reference/TouchRandomRecord", touchRandomRecord)
            ->Arg(n)
            ->MinTime(0.1);
    }
    benchmark::RegisterBenchmark("Reference/ClockGettime", clockGettime)->MinTime(0.1);
}

const bool g_registered = (registerAll(), true);

}  // namespace

BENCHMARK_MAIN();
