// Random numbers: the process seed fixes the numbers and strings drawn.
#include "Velik/Random.h"

#include <gtest/gtest.h>

namespace {

using Velik::Random;

// The seed is fixed by the first setSeed() of a process, so each case runs in
// a freshly executed child. Until then nothing seeds the engine: it runs
// MT19937-64 from its default seed, quietly. Every setSeed() prints the seed
// and restarts both sequences.
TEST(RandomDeathTest, FirstSetSeedFixesTheSeedForTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const struct {
        const char* value;
        int64_t seed;  // -1: from the clock
        const char* printed;
        uint64_t firstOutput;  // 0: not checked
    } cases[] = {{"42", 42, "42", 13930160852258120406ull},
                 {"  +123abc", 123, "123", 0},
                 {nullptr, -1, "[0-9]+", 0}};
    for (const auto& c : cases) {
        EXPECT_EXIT(
            {
                bool ok = Random::getSeed() == 0 && Random::rand64() == 14514284786278117030ull;
                c.value ? setenv("QOTEST_RANDSEED", c.value, 1) : unsetenv("QOTEST_RANDSEED");
                Random::setSeed();
                const uint32_t seed = Random::getSeed();
                const uint64_t first = Random::rand64();
                const std::string text = Random::randomString(20);
                setenv("QOTEST_RANDSEED", "8", 1);
                Random::setSeed();
                ok = ok && (c.seed < 0 ? seed < 1000000000u : seed == c.seed) &&
                     (c.firstOutput == 0 || first == c.firstOutput) && Random::getSeed() == seed &&
                     Random::rand64() == first && Random::randomString(20) == text;
                std::exit(ok ? 0 : 1);
            },
            ::testing::ExitedWithCode(0),
            "^(Velik::Random::setSeed\\(\\), setting seed to " + std::string(c.printed) +
                "\n){2}$");
    }
}

}  // namespace
