// A process-wide, reproducible source of random numbers for tests and tools.
//
//   Velik::Random::setSeed();              // "Velik::Random::setSeed(), setting seed to 1234"
//   uint64_t n = Velik::Random::rand64();
//   std::string s = Velik::Random::randomString(12);
//
// A process has one seed for its whole life: the first `setSeed()` takes it
// from the environment variable `QOTEST_RANDSEED` (decimal) or, when that is
// unset, from the monotonic clock, and prints it to standard error so a
// failing run can be repeated with the same seed. Every `setSeed()` restarts
// the sequences from that seed.
//
// Not thread-safe: the state is plain process-global data, meant for the main
// thread of a test or tool. The library never calls `setSeed()` itself, so
// `rand64()` before any `setSeed()` yields the MT19937-64 sequence of seed 5489.
#pragma once

#include <cstdint>
#include <string>

namespace Velik {

class Random {
  public:
    Random() = delete;

    // Chooses the seed on the first call (`QOTEST_RANDSEED` parsed as by
    // strtoul base 10, else the nanoseconds field of CLOCK_MONOTONIC), writes
    // "Velik::Random::setSeed(), setting seed to <seed>" to standard error on
    // every call, and reseeds both `srand()` and the MT19937-64 engine.
    static void setSeed();

    // The seed chosen by the first `setSeed()`; 0 before it.
    static uint32_t getSeed();

    // The next output of the MT19937-64 engine.
    static uint64_t rand64();

    // `length` characters drawn with the C library's `rand()` from
    // "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz" plus its
    // terminating zero: about one character in 63 is a NUL byte, and it stays
    // in the string. Callers rely on this; do not "fix" it.
    static std::string randomString(unsigned length);

  private:
    static bool firstSetSeedFlag;
    static uint32_t seed;
};

namespace Impl {

// The seed a `QOTEST_RANDSEED` value stands for: strtoul base 10 (leading
// blanks and a sign accepted, parsing stops at the first non-digit, garbage
// gives 0) kept to its low 32 bits. `text` must not be null.
uint32_t seedFromText(const char* text);

}  // namespace Impl

}  // namespace Velik
