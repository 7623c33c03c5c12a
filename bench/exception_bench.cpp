// What one library exception costs: constructed, thrown and caught, with its
// backtrace captured (the normal case), additionally recorded by the tracker,
// and without capture for comparison.
#include <Velik/BacktraceTracker.h>
#include <Velik/Exception.h>

#include <benchmark/benchmark.h>

namespace {

__attribute__((noinline)) void throwCaptured() {
    Velik::RuntimeException::throwException("bench");
}

__attribute__((noinline)) void throwUncaptured() {
    throw Velik::Exception("bench", false);
}

template <void (*thrower)()>
void throwAndCatch(benchmark::State& state) {
    for (auto _ : state) {
        try {
            thrower();
        } catch (const Velik::Exception& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}

void BM_ThrowWithBacktrace(benchmark::State& state) {
    throwAndCatch<throwCaptured>(state);
}
BENCHMARK(BM_ThrowWithBacktrace);

void BM_ThrowWithBacktraceTracked(benchmark::State& state) {
    Velik::BacktraceTracker::enabledIs(true);
    throwAndCatch<throwCaptured>(state);
    Velik::BacktraceTracker::enabledIs(false);
    Velik::BacktraceTracker::clear();
}
BENCHMARK(BM_ThrowWithBacktraceTracked);

void BM_ThrowWithoutBacktrace(benchmark::State& state) {
    throwAndCatch<throwUncaptured>(state);
}
BENCHMARK(BM_ThrowWithoutBacktrace);

// The capture alone, without the throw.
void BM_ConstructWithBacktrace(benchmark::State& state) {
    for (auto _ : state) {
        Velik::RuntimeException e("bench");
        benchmark::DoNotOptimize(&e);
    }
}
BENCHMARK(BM_ConstructWithBacktrace);

// The first what(): message plus symbolised backtrace text.
void BM_FirstWhat(benchmark::State& state) {
    for (auto _ : state) {
        Velik::RuntimeException e("bench");
        benchmark::DoNotOptimize(e.what());
    }
}
BENCHMARK(BM_FirstWhat);

}  // namespace

BENCHMARK_MAIN();
