#include "Velik/LatencyHistogram.h"

#include "Velik/Assert.h"

#include <algorithm>
#include <cmath>

namespace Velik {

std::int64_t LatencyHistogram::bucketLowerBoundNs(std::size_t i) const {
    VELIK_CLASS_ASSERT(i < buckets, "bucket {} of {}", i, buckets);
    if (i == 0) {
        return 0;
    }
    if (i == buckets - 1) {
        return std::int64_t{1} << endOctave;
    }
    const std::size_t octave = (i - 1) >> subBucketBits;
    const std::size_t sub = (i - 1) & subBucketMask;
    return static_cast<std::int64_t>((subBucketMask + 1 + sub)
                                     << (octave + firstOctave - subBucketBits));
}

std::int64_t LatencyHistogram::bucketUpperBoundNs(std::size_t i) const {
    VELIK_CLASS_ASSERT(i < buckets, "bucket {} of {}", i, buckets);
    if (i == buckets - 1) {
        return std::numeric_limits<std::int64_t>::max();
    }
    return bucketLowerBoundNs(i + 1) - 1;
}

std::uint64_t LatencyHistogram::bucketCountAt(std::size_t i) const {
    VELIK_CLASS_ASSERT(i < buckets, "bucket {} of {}", i, buckets);
    return buckets_[i];
}

std::int64_t LatencyHistogram::quantileNs(double q) const {
    std::uint64_t total = 0;
    for (std::uint32_t n : buckets_) {
        total += n;
    }
    if (total == 0) {
        return 0;
    }
    q = std::isnan(q) ? 0.0 : std::clamp(q, 0.0, 1.0);
    const double rank = q * static_cast<double>(total);
    std::uint64_t below = 0;
    for (std::size_t i = 0; i < buckets; ++i) {
        const std::uint64_t n = buckets_[i];
        if (n == 0) {
            continue;
        }
        if (static_cast<double>(below + n) >= rank) {
            // The bucket's values taken as spread evenly over it; the last
            // bucket ends at the largest value seen.
            const double lower = static_cast<double>(bucketLowerBoundNs(i));
            const double upper = i == buckets - 1
                                     ? static_cast<double>(max_)
                                     : static_cast<double>(bucketUpperBoundNs(i)) + 1.0;
            const double share = (rank - static_cast<double>(below)) / static_cast<double>(n);
            const double value = lower + (upper - lower) * share;
            return std::min(static_cast<std::int64_t>(value), max_);
        }
        below += n;
    }
    return max_;
}

void LatencyHistogram::clear() {
    *this = LatencyHistogram();
}

LatencyHistogram& LatencyHistogram::merge(const LatencyHistogram& other) {
    for (std::size_t i = 0; i < buckets; ++i) {
        const std::uint64_t sum = std::uint64_t{buckets_[i]} + other.buckets_[i];
        buckets_[i] = static_cast<std::uint32_t>(
            std::min<std::uint64_t>(sum, std::numeric_limits<std::uint32_t>::max()));
    }
    count_ += other.count_;
    sum_ += other.sum_;
    max_ = std::max(max_, other.max_);
    return *this;
}

}  // namespace Velik
