// An unsigned 32-bit statistic that may have no value yet.
#pragma once

#include <cstdint>
#include <limits>

namespace Velik {

class TaskMaybeU32 {
  public:
    // All ones: no value.
    static constexpr std::uint32_t none = std::numeric_limits<std::uint32_t>::max();

    constexpr TaskMaybeU32() = default;
    constexpr explicit TaskMaybeU32(std::uint32_t raw) : value_(raw) {}

    constexpr bool hasValue() const { return value_ != none; }
    // The raw word: `none` when there is no value.
    constexpr std::uint32_t value() const { return value_; }
    // The value, or 0 when there is none.
    constexpr std::uint32_t valueOrZero() const { return hasValue() ? value_ : 0; }

    // Stores a sample; a sample of all ones is kept as all ones minus one, so
    // that it still counts as a value.
    constexpr void sampleIs(std::uint32_t sample) { value_ = sample == none ? none - 1 : sample; }
    constexpr void clear() { value_ = none; }

    friend constexpr bool operator==(TaskMaybeU32 a, TaskMaybeU32 b) {
        return a.value_ == b.value_;
    }

  private:
    std::uint32_t value_ = none;
};

}  // namespace Velik
