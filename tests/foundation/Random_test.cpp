#include "Velik/Random.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using Velik::Random;

// The seed is fixed by the first setSeed() of a process, so these tests run
// their body in a freshly executed child.
class RandomFreshProcessTest : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(RandomFreshProcessTest, BeforeAnySetSeedTheEngineRunsTheSequenceOfSeed5489) {
    EXPECT_EXIT(
        {
            bool ok = Random::getSeed() == 0 && Random::rand64() == 14514284786278117030ull;
            for (int i = 2; i < 10000; ++i) {
                Random::rand64();
            }
            // The 10000th output of MT19937-64 with its default seed.
            std::exit(ok && Random::rand64() == 9981545732273789042ull ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "^$");
}

TEST_F(RandomFreshProcessTest, FirstSeedStaysAndEverySetSeedRestartsBothSequences) {
    EXPECT_EXIT(
        {
            setenv("QOTEST_RANDSEED", "42", 1);
            Random::setSeed();
            const uint64_t first = Random::rand64();
            bool ok =
                first == 13930160852258120406ull && Random::rand64() == 11788048577503494824ull;
            const std::string text = Random::randomString(20);
            setenv("QOTEST_RANDSEED", "8", 1);
            Random::setSeed();
            ok = ok && Random::getSeed() == 42u && Random::rand64() == first;
            std::exit(ok && Random::randomString(20) == text ? 0 : 1);
        },
        ::testing::ExitedWithCode(0),
        "^Velik::Random::setSeed\\(\\), setting seed to 42\n"
        "Velik::Random::setSeed\\(\\), setting seed to 42\n$");
}

TEST_F(RandomFreshProcessTest, EnvironmentIsParsedLikeStrtoulElseTheClockNanosecondsAreUsed) {
    const struct {
        const char* value;
        const char* printed;
    } cases[] = {{"  +123abc", "to 123\n"}, {"garbage", "to 0\n"}, {nullptr, "to [0-9]+\n"}};
    for (const auto& c : cases) {
        EXPECT_EXIT(
            {
                c.value ? setenv("QOTEST_RANDSEED", c.value, 1) : unsetenv("QOTEST_RANDSEED");
                Random::setSeed();
                const uint32_t seed = Random::getSeed();
                const bool ok =
                    c.value ? seed == std::strtoul(c.value, nullptr, 10) : seed < 1000000000u;
                std::exit(ok ? 0 : 1);
            },
            ::testing::ExitedWithCode(0), c.printed);
    }
}

// A model of the drawing: rand() modulo 63 into the alphabet, whose
// terminating zero (index 62) is drawn on purpose and kept.
TEST(RandomTest, RandomStringDrawsRandModulo63AndKeepsNul) {
    const std::string alphabet("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz",
                               63);
    std::srand(11);
    std::string expected;
    for (int i = 0; i < 1000; ++i) {
        expected.push_back(alphabet[std::rand() % 63]);
    }
    const int next = std::rand();
    std::srand(11);
    EXPECT_EQ(Random::randomString(1000), expected);
    EXPECT_EQ(Random::randomString(0), "");
    EXPECT_EQ(std::rand(), next) << "an empty string draws nothing";
    EXPECT_NE(expected.find('\0'), std::string::npos);
}

}  // namespace
