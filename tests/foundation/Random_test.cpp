#include "Velik/Random.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Velik::Random;

// The seed is fixed by the first setSeed() of a process, so tests that need a
// fresh process state run their body in a re-executed child.
class RandomFreshProcessTest : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

std::vector<uint64_t> draw(int count) {
    std::vector<uint64_t> values;
    for (int i = 0; i < count; ++i) {
        values.push_back(Random::rand64());
    }
    return values;
}

TEST_F(RandomFreshProcessTest, BeforeAnySetSeedEngineRunsTheSequenceOfSeed5489) {
    EXPECT_EXIT(
        {
            bool ok = Random::getSeed() == 0 && Random::rand64() == 14514284786278117030ull;
            for (int i = 2; i < 10000; ++i) {
                Random::rand64();
            }
            // The 10000th output of MT19937-64 with its default seed.
            ok = ok && Random::rand64() == 9981545732273789042ull;
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(RandomFreshProcessTest, SeedComesFromEnvironmentAndIsPrinted) {
    EXPECT_EXIT(
        {
            setenv("QOTEST_RANDSEED", "42", 1);
            Random::setSeed();
            bool ok = Random::getSeed() == 42u;
            ok = ok && Random::rand64() == 13930160852258120406ull;
            ok = ok && Random::rand64() == 11788048577503494824ull;
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "^Velik::Random::setSeed\\(\\), setting seed to 42\n$");
}

TEST_F(RandomFreshProcessTest, FirstSeedStaysForTheLifeOfTheProcess) {
    EXPECT_EXIT(
        {
            setenv("QOTEST_RANDSEED", "7", 1);
            Random::setSeed();
            setenv("QOTEST_RANDSEED", "8", 1);
            Random::setSeed();
            std::exit(Random::getSeed() == 7u ? 0 : 1);
        },
        ::testing::ExitedWithCode(0),
        "setting seed to 7\nVelik::Random::setSeed\\(\\), setting seed to 7\n$");
}

TEST_F(RandomFreshProcessTest, EnvironmentSeedIsParsedLikeStrtoul) {
    EXPECT_EXIT(
        {
            setenv("QOTEST_RANDSEED", "  +123abc", 1);
            Random::setSeed();
            std::exit(Random::getSeed() == 123u ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "setting seed to 123\n");
    EXPECT_EXIT(
        {
            setenv("QOTEST_RANDSEED", "garbage", 1);
            Random::setSeed();
            std::exit(Random::getSeed() == 0u ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "setting seed to 0\n");
}

TEST_F(RandomFreshProcessTest, WithoutEnvironmentSeedIsBelowOneSecondOfNanoseconds) {
    EXPECT_EXIT(
        {
            unsetenv("QOTEST_RANDSEED");
            Random::setSeed();
            std::exit(Random::getSeed() < 1000000000u ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "setting seed to [0-9]+\n");
}

TEST(RandomTest, SetSeedAgainRestartsBothSequencesWithTheSameSeed) {
    ::testing::internal::CaptureStderr();
    Random::setSeed();
    const uint32_t seed = Random::getSeed();
    const std::vector<uint64_t> first = draw(5);
    const std::string firstString = Random::randomString(20);
    Random::setSeed();
    const std::vector<uint64_t> second = draw(5);
    const std::string secondString = Random::randomString(20);
    const std::string printed = ::testing::internal::GetCapturedStderr();

    EXPECT_EQ(Random::getSeed(), seed);
    EXPECT_EQ(first, second);
    EXPECT_EQ(firstString, secondString);
    const std::string line =
        "Velik::Random::setSeed(), setting seed to " + std::to_string(seed) + "\n";
    EXPECT_EQ(printed, line + line);
}

TEST(RandomTest, RandomStringOfZeroIsEmptyAndDrawsNothing) {
    std::srand(3);
    EXPECT_EQ(Random::randomString(0), "");
    const int next = std::rand();
    std::srand(3);
    EXPECT_EQ(std::rand(), next);
}

TEST(RandomTest, RandomStringMapsRandModulo63OntoAlphabetAndKeepsNul) {
    // Index 62 is the alphabet's terminating zero: NUL characters are drawn
    // on purpose and stay in the string.
    const std::string alphabet("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz",
                               62);
    std::srand(11);
    std::string expected;
    for (int i = 0; i < 1000; ++i) {
        const int index = std::rand() % 63;
        expected.push_back(index == 62 ? '\0' : alphabet[index]);
    }
    std::srand(11);
    const std::string drawn = Random::randomString(1000);

    ASSERT_EQ(drawn.size(), 1000u);
    EXPECT_EQ(drawn, expected);
    EXPECT_NE(drawn.find('\0'), std::string::npos);
    for (char c : drawn) {
        EXPECT_TRUE(c == '\0' || alphabet.find(c) != std::string::npos) << int(c);
    }
}

}  // namespace
