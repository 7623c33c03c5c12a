#include "Velik/HashMix.h"

#include <gtest/gtest.h>

#include <array>

namespace {

using Hash32 = Velik::Impl::HashMix<uint32_t>;
using Hash64 = Velik::Impl::HashMix<uint64_t>;

// All bytes distinct and half with the top bit set, so that a misplaced,
// byte-swapped or sign-extended word changes the result.
constexpr std::array<unsigned char, 16> sample = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef,
                                                  0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10};

template <typename H>
typename H::Word mixed(const void* data, size_t length, typename H::Word start = H::offsetBasis) {
    return H(start).mix(data, length).value();
}

template <typename H>
void expectFixedLensMatchMix(const unsigned char* data) {
    const typename H::Word fixed[] = {
        H(9).template mixFixedLen<1>(data).value(), H(9).template mixFixedLen<2>(data).value(),
        H(9).template mixFixedLen<4>(data).value(), H(9).template mixFixedLen<8>(data).value()};
    for (size_t i = 0, n = 1; i < 4; ++i, n *= 2) {
        EXPECT_EQ(fixed[i], mixed<H>(data, n, 9)) << sizeof(typename H::Word) << " " << n;
    }
}

TEST(HashMixTest, AnyAlignmentAndFixedLengthsGiveTheSameHash) {
    const auto reference32 = mixed<Hash32>(sample.data(), 13);
    const auto reference64 = mixed<Hash64>(sample.data(), 13);
    alignas(8) std::array<unsigned char, sample.size() + 8> buffer{};
    for (size_t offset = 0; offset < 8; ++offset) {
        std::copy(sample.begin(), sample.end(), buffer.begin() + offset);
        const unsigned char* at = buffer.data() + offset;
        EXPECT_EQ(mixed<Hash32>(at, 13), reference32);
        EXPECT_EQ(mixed<Hash64>(at, 13), reference64);
        expectFixedLensMatchMix<Hash32>(at);
        expectFixedLensMatchMix<Hash64>(at);
    }
}

}  // namespace
