// Scale benchmark of the timer wheel (Velik/TimerWheel.h): the timing-wheel
// library plus the exact expiry times, the parking map and the master timer,
// on the libevent platform (this program's main thread uses thread-local
// singletons) with fast-forward.
//
// Populations of 1 thousand, 100 thousand and 1 million armed timers with
// random delays up to 60 s, all on the thread's wheel (`getTimerWheel()`).
// One population per (kind, size) is built once and shared by the
// benchmarks of that size.
//
// Operations, one benchmark each:
//   Event/Restart    re-arm a random armed `TimerWheelEvent` to a new random
//                    delay (time per op);
//   Event/RestartSeq the same in array order: the event is then usually in
//                    cache, which separates the wheel's cost from the cache
//                    miss on a random event;
//   Control/Restart  the same as Event/Restart through `TimerWheelTimerControl::setTimeout`
//                    (one more virtual call and the wheel's shared pointer);
//   Event/StartStop  start an extra (unarmed) event and stop it again while
//                    the population stays armed (time per pair);
//   Event/Expire     deliver the whole population through the master timer:
//                    `doLeEventLoop(61)` under fast-forward jumps from master
//                    expiry to master expiry; every timer is released by the
//                    wheel, parked at its exact time and delivered
//                    (items_per_second = timers delivered per second of CPU
//                    time; sec_per_timer). Re-arming is outside the timed
//                    region.
//
// A restart that keeps a timer filed reads no clock: the wheel fixes its
// expiry from its next reading. The restart loops take that reading every
// 1024 restarts (Beside: once per batch), as the end of a loop pass would,
// and count it. Other starts read the library clock (`Velik::time()`);
// Reference/Time measures that read alone.
//
// Beside/Restart and Beside/StartStop put a million timer controls beside a
// million libevent timers and the floor of a random restart (one random
// write into a 64-byte record among a million; also with a library clock
// read, and with the read through a pointer to a record of a control's
// size), alternating batches in one run. Beside/Restart also restarts the
// controls to absolute times (`setTimeoutAt`) from one reading per batch.
// Beside/RestartIdle restarts a random control to now + 30 s (an idle
// time-out pushed back) beside libevent's `event_add` to the same.
//
// bytes_per_timer: the object (sizeof) plus the wheel's fixed footprint
// (`timeouts_footprint()`) / n; controls add the shared pointer's control
// block (made by `make_shared`, counted as 16 bytes). Parked timers take one
// map node per distinct expiry time, only for the few ticks they are parked.

#include "Velik/FastForward.h"
#include "Velik/LibeventFactory.h"
#include "Velik/Thread.h"
#include "Velik/Time.h"
#include "Velik/Timeouts.h"
#include "Velik/TimerWheel.h"

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>

#include "Harness.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

// Seconds per operation and the memory each armed timer takes.
void reportPerOp(benchmark::State& state, double bytesPerTimer) {
    state.counters["sec_per_op"] = benchmark::Counter(
        1, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["bytes_per_timer"] = bytesPerTimer;
}

using namespace Velik;

constexpr size_t kExtra = 1024;  // unarmed events for StartStop
constexpr double kMaxDelay = 60.0;

// The main thread runs the libevent platform, switched before anything asks.
const bool g_threadLocal = (useThreadLocalSingletons(), true);

struct Rng {
    uint64_t s;
    explicit Rng(uint64_t seed) : s(seed | 1) {}
    uint64_t next() {
        s ^= s >> 12;
        s ^= s << 25;
        s ^= s >> 27;
        return s * 0x2545F4914F6CDD1Dull;
    }
    // Uniform in (0, kMaxDelay].
    double delay() { return kMaxDelay * (static_cast<double>((next() >> 11) + 1) * 0x1p-53); }
};

struct CountingEvent : TimerWheelEvent {
    size_t* delivered = nullptr;
    void timeout() override { ++*delivered; }
};

struct Counter : Platform::TimeoutHandler {
    size_t delivered = 0;
    void timeout() override { ++delivered; }
};

// One population is alive at a time.
struct Population {
    virtual ~Population() = default;
    size_t n = 0;
};
std::unique_ptr<Population> g_pop;

template <class P>
P& population(size_t n) {
    auto* p = dynamic_cast<P*>(g_pop.get());
    if (p == nullptr || p->n != n) {
        g_pop.reset();  // free the previous one first
        g_pop = std::make_unique<P>(n);
        p = static_cast<P*>(g_pop.get());
    }
    return *p;
}

double wheelShare(size_t n) {
    return static_cast<double>(timeouts_footprint()) / static_cast<double>(n);
}

struct EventPop : Population {
    std::shared_ptr<TimerWheel> wheel = getTimerWheel();
    std::unique_ptr<CountingEvent[]> events;
    std::unique_ptr<CountingEvent[]> extra;
    size_t delivered = 0;

    explicit EventPop(size_t count)
        : events(new CountingEvent[count]), extra(new CountingEvent[kExtra]) {
        n = count;
        for (size_t i = 0; i < n; ++i) {
            events[i].delivered = &delivered;
        }
        for (size_t i = 0; i < kExtra; ++i) {
            extra[i].delivered = &delivered;
        }
        arm(Rng(1));
    }
    ~EventPop() override {
        for (size_t i = 0; i < n; ++i) {
            events[i].delTimeout(wheel);
        }
        wheel->setMasterTimer();
    }
    void arm(Rng rng) {
        for (size_t i = 0; i < n; ++i) {
            events[i].setTimeout(wheel, rng.delay());
        }
    }
    double bytesPerTimer() const { return sizeof(TimerWheelEvent) + wheelShare(n); }
};

struct ControlPop : Population {
    Counter counter;
    std::vector<std::shared_ptr<Platform::TimerControl>> controls;

    explicit ControlPop(size_t count) {
        n = count;
        controls.reserve(n);
        Rng rng(5);
        std::shared_ptr<TimerWheel> wheel = getTimerWheel();
        for (size_t i = 0; i < n; ++i) {
            controls.push_back(Platform::getTimerControl(&counter, wheel));
            controls.back()->setTimeout(rng.delay());
        }
    }
    ~ControlPop() override {
        controls.clear();
        getTimerWheel()->setMasterTimer();
    }
    double bytesPerTimer() const { return sizeof(TimerWheelTimerControl) + 16 + wheelShare(n); }
};

void perOp(benchmark::State& state, double bytesPerTimer) {
    reportPerOp(state, bytesPerTimer);
}

// What the end of a loop pass does for the restarts in it, every 1024
// restarts (`k` counts them).
void endPassEvery(const std::shared_ptr<TimerWheel>& wheel, size_t k) {
    if ((k & 1023) == 0) {
        wheel->settleRestarts();
    }
}

void eventRestart(benchmark::State& state, bool seq) {
    auto& pop = population<EventPop>(state.range(0));
    Rng rng(2);
    size_t k = 0, ops = 0;
    for (auto _ : state) {
        const size_t i = seq ? (k = k + 1 == pop.n ? 0 : k + 1) : rng.next() % pop.n;
        pop.events[i].setTimeout(pop.wheel, rng.delay());
        endPassEvery(pop.wheel, ++ops);
    }
    perOp(state, pop.bytesPerTimer());
}

void controlRestart(benchmark::State& state) {
    auto& pop = population<ControlPop>(state.range(0));
    Rng rng(2);
    size_t k = 0;
    for (auto _ : state) {
        pop.controls[rng.next() % pop.n]->setTimeout(rng.delay());
        endPassEvery(getTimerWheel(), ++k);
    }
    perOp(state, pop.bytesPerTimer());
}

void eventStartStop(benchmark::State& state) {
    auto& pop = population<EventPop>(state.range(0));
    Rng rng(3);
    size_t j = 0;
    for (auto _ : state) {
        CountingEvent& ev = pop.extra[j++ & (kExtra - 1)];
        ev.setTimeout(pop.wheel, rng.delay());
        ev.delTimeout(pop.wheel);
    }
    perOp(state, pop.bytesPerTimer());
}

void eventExpire(benchmark::State& state) {
    auto& pop = population<EventPop>(state.range(0));
    uint64_t seed = 4;
    size_t delivered = 0;
    for (auto _ : state) {
        state.PauseTiming();
        pop.arm(Rng(seed++));
        pop.delivered = 0;
        state.ResumeTiming();
        doLeEventLoop(kMaxDelay + 1);
        delivered += pop.delivered;
        if (pop.delivered != pop.n) {
            state.SkipWithError("the wheel did not deliver the whole population");
            break;
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(delivered));
    state.counters["sec_per_timer"] = benchmark::Counter(
        static_cast<double>(delivered), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["bytes_per_timer"] = pop.bytesPerTimer();
}

// ---------------------------------------------------------------- beside

// Timer controls beside their peers, batch by batch in one run so that all
// see the same machine load: a million armed controls from
// `Platform::getTimerControl`, a million armed libevent timers on a base of
// their own (`event_add` on its heap) and the floor, one random write into a
// 64-byte record among a million. Thread CPU time per operation.
struct Beside {
    static constexpr size_t n = 1'000'000;
    static constexpr int batch = 20'000;
    static constexpr double idleDelay = 30.0;
    struct Record {
        uint64_t words[8];
    };

    Counter counter;
    std::vector<std::shared_ptr<Platform::TimerControl>> controls;
    std::vector<std::shared_ptr<Platform::TimerControl>> extraControls;
    event_base* base = event_base_new();
    std::unique_ptr<event[]> events{new event[n]};
    std::unique_ptr<event[]> extraEvents{new event[kExtra]};
    std::vector<Record> records = std::vector<Record>(n, Record{});
    // Records of a control's size, each its own allocation, reached through
    // a vector of pointers as the controls are.
    struct Big {
        uint64_t words[16];
    };
    std::vector<std::unique_ptr<Big>> bigs;
    Rng rng{7};
    std::shared_ptr<TimerWheel> wheel = getTimerWheel();

    Beside() {
        controls.reserve(n);
        for (size_t i = 0; i < n; ++i) {
            controls.push_back(Platform::getTimerControl(&counter, wheel));
            controls.back()->setTimeout(rng.delay());
            event_assign(
                &events[i], base, -1, 0, [](evutil_socket_t, short, void*) {}, nullptr);
            const timeval tv = delayTv();
            event_add(&events[i], &tv);
        }
        bigs.reserve(n);
        for (size_t i = 0; i < n; ++i) {
            bigs.push_back(std::make_unique<Big>());
        }
        for (size_t i = 0; i < kExtra; ++i) {
            extraControls.push_back(Platform::getTimerControl(&counter, wheel));
            event_assign(
                &extraEvents[i], base, -1, 0, [](evutil_socket_t, short, void*) {}, nullptr);
        }
    }
    ~Beside() {
        controls.clear();
        extraControls.clear();
        for (size_t i = 0; i < n; ++i) {
            event_del(&events[i]);
        }
        event_base_free(base);
        getTimerWheel()->setMasterTimer();
    }
    timeval delayTv() {
        const double d = rng.delay();
        timeval tv;
        tv.tv_sec = static_cast<time_t>(d);
        tv.tv_usec = static_cast<suseconds_t>((d - static_cast<double>(tv.tv_sec)) * 1e6);
        return tv;
    }

    // The batch is one loop pass: the reading that fixes the restarts'
    // expiries at its end is part of their cost.
    double controlRestart() {
        return VelikBench::timed([&] {
            for (int k = 0; k < batch; ++k) {
                controls[rng.next() % n]->setTimeout(rng.delay());
            }
            wheel->settleRestarts();
        });
    }
    // Restarts to absolute times from one clock reading for the whole batch,
    // as a caller restarting many timers together does.
    double controlRestartAt() {
        return VelikBench::timed([&] {
            const double now = Velik::time();
            for (int k = 0; k < batch; ++k) {
                controls[rng.next() % n]->setTimeoutAt(now + rng.delay());
            }
        });
    }
    // An idle time-out pushed back on every request: a random timer to now
    // plus 30 s, beside libevent's `event_add` on the same pattern.
    double controlRestartIdle() {
        return VelikBench::timed([&] {
            for (int k = 0; k < batch; ++k) {
                controls[rng.next() % n]->setTimeout(idleDelay);
            }
            wheel->settleRestarts();
        });
    }
    double libeventRestartIdle() {
        return VelikBench::timed([&] {
            const timeval tv{static_cast<time_t>(idleDelay), 0};
            for (int k = 0; k < batch; ++k) {
                event_add(&events[rng.next() % n], &tv);
            }
        });
    }
    double libeventRestart() {
        return VelikBench::timed([&] {
            for (int k = 0; k < batch; ++k) {
                const timeval tv = delayTv();
                event_add(&events[rng.next() % n], &tv);
            }
        });
    }
    double floor() {
        return VelikBench::timed([&] {
            for (int k = 0; k < batch; ++k) {
                Record& r = records[rng.next() % n];
                r.words[0] += r.words[7] + 1;
                benchmark::DoNotOptimize(r);
            }
        });
    }
    // The floor with what every restart must add to it: the library clock
    // read, whose value is written; and the same through a pointer to a
    // separately allocated record, as a control is reached.
    double floorTime() {
        return VelikBench::timed([&] {
            for (int k = 0; k < batch; ++k) {
                Record& r = records[rng.next() % n];
                r.words[0] = static_cast<uint64_t>(Velik::time()) + r.words[7];
                benchmark::DoNotOptimize(r);
            }
        });
    }
    double floorPointerTime() {
        return VelikBench::timed([&] {
            for (int k = 0; k < batch; ++k) {
                Big& r = *bigs[rng.next() % n];
                r.words[0] = static_cast<uint64_t>(Velik::time()) + r.words[7];
                benchmark::DoNotOptimize(r);
            }
        });
    }
    double controlStartStop() {
        return VelikBench::timed([&] {
            for (int k = 0; k < batch; ++k) {
                Platform::TimerControl& c = *extraControls[k & (kExtra - 1)];
                c.setTimeout(rng.delay());
                c.delTimeout();
            }
        });
    }
    double libeventStartStop() {
        return VelikBench::timed([&] {
            for (int k = 0; k < batch; ++k) {
                event* ev = &extraEvents[k & (kExtra - 1)];
                const timeval tv = delayTv();
                event_add(ev, &tv);
                event_del(ev);
            }
        });
    }
};

Beside& beside() {
    g_pop.reset();
    static Beside instance;
    return instance;
}

// Counters: ns per operation of each (`control_ns`, `libevent_ns`,
// `floor_ns`), `x_libevent` = libevent / control and `x_floor` = control /
// floor; beside them the floor with a clock read (`floor_time_ns`) and with
// a clock read through a pointer (`floor_ptr_time_ns`), and the control over
// the latter (`x_floor_ptr_time`); and restarts to absolute times that share
// one clock reading (`control_at_ns`, `x_libevent_at`, `x_floor_at`).
void besideRestart(benchmark::State& state) {
    Beside& b = beside();
    double control = 0, controlAt = 0, libevent = 0, floor = 0, floorTime = 0, floorPointerTime = 0;
    for (auto _ : state) {
        control += b.controlRestart();
        controlAt += b.controlRestartAt();
        libevent += b.libeventRestart();
        floor += b.floor();
        floorTime += b.floorTime();
        floorPointerTime += b.floorPointerTime();
    }
    const double ops = static_cast<double>(state.iterations()) * Beside::batch;
    state.counters["control_ns"] = control / ops;
    state.counters["libevent_ns"] = libevent / ops;
    state.counters["floor_ns"] = floor / ops;
    state.counters["x_libevent"] = libevent / control;
    state.counters["x_floor"] = control / floor;
    state.counters["floor_time_ns"] = floorTime / ops;
    state.counters["floor_ptr_time_ns"] = floorPointerTime / ops;
    state.counters["x_floor_ptr_time"] = control / floorPointerTime;
    state.counters["control_at_ns"] = controlAt / ops;
    state.counters["x_libevent_at"] = libevent / controlAt;
    state.counters["x_floor_at"] = controlAt / floor;
}

// The idle pattern: `control_ns`, `libevent_ns`, `x_libevent` = libevent /
// control.
void besideRestartIdle(benchmark::State& state) {
    Beside& b = beside();
    double control = 0, libevent = 0;
    for (auto _ : state) {
        control += b.controlRestartIdle();
        libevent += b.libeventRestartIdle();
    }
    const double ops = static_cast<double>(state.iterations()) * Beside::batch;
    state.counters["control_ns"] = control / ops;
    state.counters["libevent_ns"] = libevent / ops;
    state.counters["x_libevent"] = libevent / control;
}

// Start then stop one extra timer while the million stay armed, per pair.
void besideStartStop(benchmark::State& state) {
    Beside& b = beside();
    double control = 0, libevent = 0;
    for (auto _ : state) {
        control += b.controlStartStop();
        libevent += b.libeventStartStop();
    }
    const double ops = static_cast<double>(state.iterations()) * Beside::batch;
    state.counters["control_ns"] = control / ops;
    state.counters["libevent_ns"] = libevent / ops;
    state.counters["x_libevent"] = libevent / control;
}

void libraryTime(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(Velik::time());
    }
}

// Registration: size -> operation, so each population is built once.
void registerAll() {
    const int64_t sizes[] = {1'000, 100'000, 1'000'000};
    auto expireIterations = [](int64_t n) -> benchmark::IterationCount {
        return n <= 1'000 ? 50 : n <= 100'000 ? 8 : 3;
    };
    const double minTime = 0.25;
    for (int64_t n : sizes) {
        benchmark::RegisterBenchmark("Event/Restart", eventRestart, false)
            ->Arg(n)
            ->MinTime(minTime);
        benchmark::RegisterBenchmark("Event/RestartSeq", eventRestart, true)
            ->Arg(n)
            ->MinTime(minTime);
        benchmark::RegisterBenchmark("Event/StartStop", eventStartStop)->Arg(n)->MinTime(minTime);
        benchmark::RegisterBenchmark("Event/Expire", eventExpire)
            ->Arg(n)
            ->Iterations(expireIterations(n));
        benchmark::RegisterBenchmark("Control/Restart", controlRestart)->Arg(n)->MinTime(minTime);
    }
    benchmark::RegisterBenchmark("Reference/Time", libraryTime)->MinTime(0.1);
    benchmark::RegisterBenchmark("Beside/Restart/1000000", besideRestart)->Iterations(50);
    benchmark::RegisterBenchmark("Beside/RestartIdle/1000000", besideRestartIdle)->Iterations(50);
    benchmark::RegisterBenchmark("Beside/StartStop/1000000", besideStartStop)->Iterations(50);
}

const bool g_registered = (registerAll(), true);

// Fast-forward is switched from the main thread before the benchmarks run.
const bool g_fastForward = (setLeFastForward(true), true);

}  // namespace

BENCHMARK_MAIN();
