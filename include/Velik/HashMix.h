// Word-at-a-time FNV-1a mixing: the engine behind `Util::hash` and
// `Util::hash64`.
//
//   uint64_t h = Velik::Impl::HashMix<uint64_t>(Velik::Impl::HashMix<uint64_t>::offsetBasis)
//                    .mixInline(key.data(), key.size())
//                    .mixFixedLen<4>(&port)
//                    .value();
//
// Each step XORs a whole machine word (4 or 8 bytes, loaded in native byte
// order without alignment requirement) into the running hash and multiplies
// by the FNV prime, so results differ from byte-wise FNV-1a. A partial tail
// word is zero-filled with the data in its highest-addressed bytes. These
// values are stored in names and compared across processes: they must never
// change.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

namespace Velik::Impl {

// The hash layout is fixed for little-endian targets: the fixed-length forms
// spell the tail placement as shifts that match the memory layout only there.
static_assert(std::endian::native == std::endian::little,
              "HashMix values are defined for little-endian machines");

template <typename W>
struct HashMixTraits;

template <>
struct HashMixTraits<uint32_t> {
    static constexpr uint32_t prime = 16777619u;          // 0x01000193
    static constexpr uint32_t offsetBasis = 2166136261u;  // 0x811C9DC5
};

template <>
struct HashMixTraits<uint64_t> {
    static constexpr uint64_t prime = 1099511628211ull;               // 0x100000001B3
    static constexpr uint64_t offsetBasis = 14695981039346656037ull;  // 0xCBF29CE484222325
};

// A running hash of word type W (uint32_t or uint64_t). A value type: copy it
// to fork a hash, read it with `value()`.
template <typename W>
class HashMix {
  public:
    using Word = W;
    static constexpr size_t wordSize = sizeof(W);
    static constexpr W prime = HashMixTraits<W>::prime;
    // The FNV offset basis, the starting value used by `Util::hash`/`hash64`.
    static constexpr W offsetBasis = HashMixTraits<W>::offsetBasis;

    explicit constexpr HashMix(W start) noexcept : hash_(start) {}

    // Mixes `length` bytes at `data` (any alignment). A length of 0 leaves the
    // hash unchanged. Returns *this for chaining.
    HashMix& mixInline(const void* data, size_t length) noexcept {
        const auto* bytes = static_cast<const unsigned char*>(data);
        const size_t words = length / wordSize;
        for (size_t i = 0; i < words; ++i) {
            mixWord(loadWord(bytes + i * wordSize));
        }
        if (const size_t tail = length % wordSize; tail != 0) {
            W word = 0;
            std::memcpy(reinterpret_cast<unsigned char*>(&word) + (wordSize - tail),
                        bytes + length - tail, tail);
            mixWord(word);
        }
        return *this;
    }

    // As `mixInline`, out of line.
    HashMix& mix(const void* data, size_t length) noexcept;

    // Mixes the string's characters (its size, no terminator).
    HashMix& mix(const std::string& text) noexcept { return mix(text.data(), text.size()); }

    // The same result as `mix(data, N)` for N = 1, 2, 4 or 8, without the loop
    // and the tail copy.
    template <size_t N>
    HashMix& mixFixedLen(const void* data) noexcept {
        static_assert(N == 1 || N == 2 || N == 4 || N == 8, "mixFixedLen takes 1, 2, 4 or 8 bytes");
        if constexpr (N == 1) {
            mixWord(W{*static_cast<const uint8_t*>(data)} << (8 * (wordSize - 1)));
        } else if constexpr (N == 2) {
            mixWord(W{load<uint16_t>(data)} << (8 * (wordSize - 2)));
        } else if constexpr (N == 4 && wordSize == 8) {
            mixWord(W{load<uint32_t>(data)} << 32);
        } else if constexpr (N == wordSize) {
            mixWord(load<W>(data));
        } else {  // eight bytes into a 32-bit hash: two words
            mixWord(load<W>(data));
            mixWord(load<W>(static_cast<const unsigned char*>(data) + wordSize));
        }
        return *this;
    }

    // The running hash.
    constexpr W value() const noexcept { return hash_; }

  private:
    template <typename T>
    static T load(const void* data) noexcept {
        T value;
        std::memcpy(&value, data, sizeof(T));
        return value;
    }
    static W loadWord(const unsigned char* data) noexcept { return load<W>(data); }

    void mixWord(W word) noexcept { hash_ = static_cast<W>((hash_ ^ word) * prime); }

    W hash_;
};

extern template class HashMix<uint32_t>;
extern template class HashMix<uint64_t>;

}  // namespace Velik::Impl
