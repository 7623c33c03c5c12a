// Random numbers and hashing: the process seed and the drawing of strings,
// and the hash mix over any alignment.
#include "Velik/Random.h"
#include "Velik/HashMix.h"

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

// A model of the drawing: rand() modulo 63 into the alphabet, whose
// terminating zero (index 62) is drawn on purpose and kept.
TEST(RandomTest, RandomStringDrawsRandModulo63AndKeepsNul) {
    const std::string abc("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz", 63);
    std::srand(11);  // which draws a NUL among the first thousand
    std::string expected;
    for (int i = 0; i < 1000; ++i) {
        expected.push_back(abc[std::rand() % 63]);
    }
    const int next = std::rand();
    std::srand(11);
    EXPECT_EQ(Random::randomString(1000), expected);
    EXPECT_EQ(Random::randomString(0), "");
    EXPECT_EQ(std::rand(), next) << "an empty string draws nothing";
}

// All bytes distinct and half with the top bit set, so that a misplaced,
// byte-swapped or sign-extended word changes the result.
constexpr std::array<unsigned char, 16> sample = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef,
                                                  0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10};

template <typename H>
void expectSameHashAtEveryAlignment() {
    const auto mixed = [](const unsigned char* at, size_t n) { return H(9).mix(at, n).value(); };
    const auto reference = mixed(sample.data(), 13);
    alignas(8) std::array<unsigned char, sample.size() + 8> buffer{};
    for (size_t offset = 0; offset < 8; ++offset) {
        std::copy(sample.begin(), sample.end(), buffer.begin() + offset);
        const unsigned char* at = buffer.data() + offset;
        EXPECT_EQ(mixed(at, 13), reference) << offset;
        EXPECT_EQ(H(9).template mixFixedLen<1>(at).value(), mixed(at, 1));
        EXPECT_EQ(H(9).template mixFixedLen<2>(at).value(), mixed(at, 2));
        EXPECT_EQ(H(9).template mixFixedLen<4>(at).value(), mixed(at, 4));
        EXPECT_EQ(H(9).template mixFixedLen<8>(at).value(), mixed(at, 8));
    }
}

TEST(HashMixTest, AnyAlignmentAndFixedLengthsGiveTheSameHash) {
    expectSameHashAtEveryAlignment<Velik::Impl::HashMix<uint32_t>>();
    expectSameHashAtEveryAlignment<Velik::Impl::HashMix<uint64_t>>();
}

}  // namespace
