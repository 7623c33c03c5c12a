// A histogram of durations in nanoseconds, fixed in size and cheap to fill.
//
// Schedulers keep one for the run time, one for the scheduling latency and
// one for the timer lateness of their tasks' runs (RunHistograms.h); a
// `LatencyHistogram` is also usable on its own:
//
//   Velik::LatencyHistogram h;
//   h.record(elapsed.count());
//   fmt::print("p99 {} ns of {} runs\n", h.quantileNs(0.99), h.count());
//
// Buckets are log-linear: each power of two from 128 ns to 2^37 ns (137 s) is
// cut into eight equal sub-buckets, so a bucket is at most 1/8 of its lower
// edge wide and its middle lies within 6.25% of any value in it. Values below
// 128 ns (negative ones included) fall in the first bucket, values from 2^37
// ns on in the last, the overflow bucket. 242 buckets in all:
//
//   bucket 0          0 .. 127
//   bucket 1 + 8k + s (8 + s) << (k + 4) .. ((9 + s) << (k + 4)) - 1,
//                     k = 0 .. 29, s = 0 .. 7
//   bucket 241        2^37 .. INT64_MAX
//
// Recording is a bit scan, a shift and an increment, plus the count, the sum
// and the maximum; it never allocates, and the whole object is 992 bytes. A
// bucket holds at most 2^32 - 1 values and then stays full (the statistics
// reset clears it), so quantiles stay meaningful far beyond that; the count,
// the sum and the maximum are exact.
//
// Not thread-safe: a histogram belongs to the thread that records into it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace Velik {

class LatencyHistogram {
  public:
    static constexpr const char* traceClassName = "LatencyHistogram";
    // Sub-buckets per power of two, as a shift.
    static constexpr unsigned subBucketBits = 3;
    // The first power of two cut into sub-buckets, and the first beyond.
    static constexpr unsigned firstOctave = 7;
    static constexpr unsigned endOctave = 37;
    static constexpr std::size_t buckets =
        2 + (endOctave - firstOctave) * (std::size_t{1} << subBucketBits);

    // Counts `ns`: below 128 in the first bucket, from 2^37 on in the last.
    void record(std::int64_t ns) {
        const std::int64_t value = ns < 0 ? 0 : ns;
        std::uint32_t& bucket = buckets_[bucketIndex(value)];
        bucket += bucket != std::numeric_limits<std::uint32_t>::max();  // a full one stays full
        ++count_;
        sum_ += value;
        max_ = value > max_ ? value : max_;
    }

    // The bucket `ns` falls in.
    static std::size_t bucketIndex(std::int64_t ns) {
        // Everything below 128 ns is raised to 120 ns, which lands in the
        // last sub-bucket of the power of two before the first: index 0.
        const auto value = static_cast<std::uint64_t>(ns < 120 ? 120 : ns);
        // The power of two (a bit scan), then the leading bit and the three
        // below it, 8 to 15: the sub-bucket plus 8.
        const auto octave = static_cast<unsigned>(63 ^ __builtin_clzll(value));
        const std::size_t index = (std::size_t{octave} << subBucketBits) +
                                  (value >> (octave - subBucketBits)) - firstIndexBias;
        return index < buckets ? index : buckets - 1;
    }

    std::size_t bucketCount() const { return buckets; }
    // The largest value bucket `i` holds; INT64_MAX for the last. Asserts
    // beyond the last bucket.
    std::int64_t bucketUpperBoundNs(std::size_t i) const;
    // The smallest value bucket `i` holds.
    std::int64_t bucketLowerBoundNs(std::size_t i) const;
    // Values counted in bucket `i`. Asserts beyond the last bucket.
    std::uint64_t bucketCountAt(std::size_t i) const;

    std::uint64_t count() const { return count_; }
    // Negative values count as 0.
    std::int64_t sumNs() const { return sum_; }
    std::int64_t maxNs() const { return max_; }

    // The value below which a share `q` (0 to 1, clamped) of the counted
    // values lie, from the buckets: interpolated linearly within the bucket
    // the rank falls in, never above `maxNs()`. 0 when empty.
    std::int64_t quantileNs(double q) const;

    void clear();
    // Adds the buckets, counts and sums of `other`; keeps the larger maximum.
    LatencyHistogram& merge(const LatencyHistogram& other);

  private:
    static constexpr std::size_t subBucketMask = (std::size_t{1} << subBucketBits) - 1;
    // What `bucketIndex` takes off so that the first power of two's first
    // sub-bucket is index 1.
    static constexpr std::size_t firstIndexBias =
        (std::size_t{firstOctave} << subBucketBits) + (subBucketMask + 1) - 1;

    std::array<std::uint32_t, buckets> buckets_{};
    std::uint64_t count_ = 0;
    std::int64_t sum_ = 0;
    std::int64_t max_ = 0;
};

}  // namespace Velik
