// Latency histograms: where values land, what the bounds say, how close the
// quantiles come to those of the sample itself, and full buckets.
#include <Velik/LatencyHistogram.h>

#include "foundation/ThrowingAsserts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

using Velik::LatencyHistogram;

constexpr std::int64_t int64Max = std::numeric_limits<std::int64_t>::max();

// The bucket a single recorded value lands in, as the histogram reports it.
std::size_t landsIn(std::int64_t ns) {
    LatencyHistogram h;
    h.record(ns);
    for (std::size_t i = 0; i < h.bucketCount(); ++i) {
        if (h.bucketCountAt(i) == 1) {
            return i;
        }
    }
    return h.bucketCount();
}

TEST(LatencyHistogramTest, BucketsTileTheRangeWithEdgesWhereTheyAreReported) {
    LatencyHistogram h;
    static_assert(sizeof(LatencyHistogram) <= 1024);
    ASSERT_EQ(h.bucketCount(), 242u);
    const std::size_t last = h.bucketCount() - 1;

    EXPECT_EQ(landsIn(-5), 0u);
    EXPECT_EQ(landsIn(0), 0u);
    EXPECT_EQ(h.bucketUpperBoundNs(0), 127);
    // Each bucket starts right after the one before, holds both its edges,
    // and is at most an eighth of its lower edge wide.
    for (std::size_t i = 1; i < last; ++i) {
        const std::int64_t lower = h.bucketUpperBoundNs(i - 1) + 1;
        const std::int64_t upper = h.bucketUpperBoundNs(i);
        ASSERT_EQ(landsIn(lower), i);
        ASSERT_EQ(landsIn(upper), i);
        ASSERT_EQ(h.bucketLowerBoundNs(i), lower);
        ASSERT_LE(upper - lower + 1, lower / 8) << i;
    }
    EXPECT_EQ(h.bucketUpperBoundNs(1), 143);
    // 100 s is still measured; from 2^37 ns on everything is overflow.
    EXPECT_GE(h.bucketUpperBoundNs(last - 1), 100'000'000'000);
    EXPECT_EQ(h.bucketUpperBoundNs(last - 1), (std::int64_t{1} << 37) - 1);
    EXPECT_EQ(landsIn(std::int64_t{1} << 37), last);
    EXPECT_EQ(landsIn(int64Max), last);
    EXPECT_EQ(h.bucketUpperBoundNs(last), int64Max);

    VelikTest::ThrowingAsserts throwing;
    EXPECT_THROW(h.bucketUpperBoundNs(last + 1), Velik::AssertException);
    EXPECT_THROW(h.bucketCountAt(last + 1), Velik::AssertException);
}

TEST(LatencyHistogramTest, CountsSumsAndKeepsTheMaximumExactly) {
    LatencyHistogram h;
    EXPECT_EQ(h.quantileNs(0.5), 0);  // empty
    for (std::int64_t ns : {300, -40, 5'000'000, 300}) {
        h.record(ns);
    }
    EXPECT_EQ(h.count(), 4u);
    EXPECT_EQ(h.sumNs(), 5'000'600);  // a negative value counts as 0
    EXPECT_EQ(h.maxNs(), 5'000'000);
    EXPECT_EQ(h.quantileNs(1.0), 5'000'000);
    EXPECT_EQ(h.quantileNs(7.0), 5'000'000);  // clamped

    LatencyHistogram other;
    other.record(9'000'000);
    h.merge(other);
    EXPECT_EQ(h.count(), 5u);
    EXPECT_EQ(h.maxNs(), 9'000'000);
    EXPECT_EQ(h.bucketCountAt(LatencyHistogram::bucketIndex(300)), 2u);
    h.clear();
    EXPECT_EQ(h.count(), 0u);
    EXPECT_EQ(h.maxNs(), 0);
    EXPECT_EQ(h.bucketCountAt(LatencyHistogram::bucketIndex(300)), 0u);
}

// A sample spread over seven decades: every quantile lies in the bucket of
// the sample's own value at that rank, so it is off by a bucket width at
// most (an eighth of the value, or the first bucket's 128 ns).
TEST(LatencyHistogramTest, QuantilesStayWithinABucketOfTheSortedSample) {
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> exponent(1.5, 10.5);
    std::vector<std::int64_t> sample(20000);
    LatencyHistogram h;
    for (std::int64_t& ns : sample) {
        ns = static_cast<std::int64_t>(std::pow(10.0, exponent(random)));
        h.record(ns);
    }
    std::sort(sample.begin(), sample.end());
    for (double q : {0.0, 0.1, 0.5, 0.9, 0.99, 0.999}) {
        const auto rank = static_cast<std::size_t>(std::ceil(q * sample.size()));
        const std::int64_t exact = sample[rank == 0 ? 0 : rank - 1];
        EXPECT_NEAR(h.quantileNs(q), exact, std::max<double>(exact / 8.0, 128.0)) << q;
    }
    EXPECT_EQ(h.quantileNs(1.0), sample.back());
}

// Doubling by merging into itself fills a bucket beyond 32 bits: it stays
// full, and a further record does not wrap it to zero.
TEST(LatencyHistogramTest, AFullBucketStaysFull) {
    LatencyHistogram h;
    h.record(1000);
    for (int i = 0; i < 33; ++i) {
        h.merge(h);
    }
    const std::size_t bucket = LatencyHistogram::bucketIndex(1000);
    EXPECT_EQ(h.bucketCountAt(bucket), 0xFFFF'FFFFu);
    h.record(1000);
    EXPECT_EQ(h.bucketCountAt(bucket), 0xFFFF'FFFFu);
    EXPECT_EQ(h.count(), (std::uint64_t{1} << 33) + 1);
    EXPECT_GE(h.quantileNs(0.5), h.bucketLowerBoundNs(bucket));
    EXPECT_LE(h.quantileNs(0.5), 1000);  // the maximum
}

}  // namespace
