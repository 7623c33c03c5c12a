#include "Velik/HashMix.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

namespace {

using Velik::Impl::HashMix;
using Hash32 = HashMix<uint32_t>;
using Hash64 = HashMix<uint64_t>;

template <typename H>
typename H::Word mixed(const void* data, size_t length) {
    return H(H::offsetBasis).mix(data, length).value();
}

// Sample inputs whose bytes are all distinct, so that a misplaced or
// byte-swapped word changes the result.
constexpr std::array<unsigned char, 16> sample = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef,
                                                  0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10};

TEST(HashMixTest, TailBytesGoToTheTopOfAZeroedWord) {
    // Three bytes are all tail: they fill the high end of a zeroed word.
    const uint32_t word = 0x63626100u;  // 00 'a' 'b' 'c' in memory
    EXPECT_EQ(mixed<Hash32>("abc", 3), (0x811C9DC5u ^ word) * 16777619u);
    const uint64_t tail = uint64_t{'z'} << 56;
    const uint64_t afterWord = Hash64(7).mix("abcdefgh", 8).value();
    EXPECT_EQ(Hash64(7).mix("abcdefghz", 9).value(), (afterWord ^ tail) * 1099511628211ull);
}

TEST(HashMixTest, DataNeedNotBeAligned) {
    alignas(8) std::array<unsigned char, sample.size() + 8> buffer{};
    for (size_t offset = 1; offset < 8; ++offset) {
        std::memcpy(buffer.data() + offset, sample.data(), sample.size());
        EXPECT_EQ(mixed<Hash32>(buffer.data() + offset, 13), mixed<Hash32>(sample.data(), 13));
        EXPECT_EQ(mixed<Hash64>(buffer.data() + offset, 13), mixed<Hash64>(sample.data(), 13));
    }
}

TEST(HashMixTest, SplittingAtWholeWordsGivesTheSameHash) {
    EXPECT_EQ(Hash32(9).mix(sample.data(), 8).mix(sample.data() + 8, 7).value(),
              Hash32(9).mix(sample.data(), 15).value());
    EXPECT_EQ(Hash64(9).mix(sample.data(), 8).mix(sample.data() + 8, 7).value(),
              Hash64(9).mix(sample.data(), 15).value());
    // Splitting inside a word does not: each call pads its own tail.
    EXPECT_NE(Hash32(9).mix(sample.data(), 2).mix(sample.data() + 2, 2).value(),
              Hash32(9).mix(sample.data(), 4).value());
}

template <typename H, size_t N>
void expectFixedLenMatchesMix(const unsigned char* data) {
    EXPECT_EQ(H(H::offsetBasis).template mixFixedLen<N>(data).value(),
              H(H::offsetBasis).mix(data, N).value())
        << "word bytes " << sizeof(typename H::Word) << " N " << N;
}

template <typename H>
void expectAllFixedLensMatchMix(const unsigned char* data) {
    expectFixedLenMatchesMix<H, 1>(data);
    expectFixedLenMatchesMix<H, 2>(data);
    expectFixedLenMatchesMix<H, 4>(data);
    expectFixedLenMatchesMix<H, 8>(data);
}

TEST(HashMixTest, FixedLenMatchesMixForEveryLengthAndWordSize) {
    // Unaligned starts as well, and bytes with the top bit set (sign bugs).
    for (size_t offset = 0; offset < 8; ++offset) {
        expectAllFixedLensMatchMix<Hash32>(sample.data() + offset);
        expectAllFixedLensMatchMix<Hash64>(sample.data() + offset);
    }
    EXPECT_EQ(Hash32(Hash32::offsetBasis).mixFixedLen<1>("a").value(), 0x920C5D1Fu);
    EXPECT_EQ(Hash64(Hash64::offsetBasis).mixFixedLen<8>("abcdefgh").value(),
              0x3919EEB00EE1E68Cull);
}

TEST(HashMixTest, ChainedCallsMixInOrder) {
    const uint32_t port = 0x1234;
    const auto chained =
        Hash64(Hash64::offsetBasis).mixInline("host", 4).mixFixedLen<4>(&port).value();
    const auto stepwise =
        Hash64(Hash64(Hash64::offsetBasis).mix("host", 4).value()).mix(&port, sizeof port).value();
    EXPECT_EQ(chained, stepwise);
    EXPECT_NE(chained, Hash64(Hash64::offsetBasis).mixFixedLen<4>(&port).mix("host", 4).value());
}

}  // namespace
