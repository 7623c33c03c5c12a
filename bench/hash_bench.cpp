// Util::hash64 (a word per multiplication) against classic byte-at-a-time
// FNV-1a over the same keys, in bytes per second.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Velik/Util.h"

namespace {

// The reference: one multiplication per byte.
uint64_t fnv1aBytewise(const void* data, size_t length) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    uint64_t hash = 14695981039346656037ull;
    for (size_t i = 0; i < length; ++i) {
        hash = (hash ^ bytes[i]) * 1099511628211ull;
    }
    return hash;
}

std::vector<unsigned char> keyOf(size_t length) {
    std::vector<unsigned char> key(length);
    for (size_t i = 0; i < length; ++i) {
        key[i] = static_cast<unsigned char>(i * 131 + 7);
    }
    return key;
}

void BM_UtilHash64(benchmark::State& state) {
    const auto key = keyOf(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(key.data());
        benchmark::DoNotOptimize(Velik::Util::hash64(key.data(), key.size()));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

void BM_Fnv1aBytewise(benchmark::State& state) {
    const auto key = keyOf(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(key.data());
        benchmark::DoNotOptimize(fnv1aBytewise(key.data(), key.size()));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

BENCHMARK(BM_UtilHash64)->Arg(16)->Arg(64)->Arg(4096);
BENCHMARK(BM_Fnv1aBytewise)->Arg(16)->Arg(64)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
