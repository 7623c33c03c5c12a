// Latency histograms: where values land, how close the quantiles come to
// those of the sample itself, and full buckets.
#include <Velik/LatencyHistogram.h>

#include "foundation/ThrowingAsserts.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace {

using Velik::LatencyHistogram;

TEST(LatencyHistogramTest, BucketsTileTheRangeWithEdgesWhereTheyAreReported) {
    LatencyHistogram h;
    const std::size_t last = h.bucketCount() - 1;
    ASSERT_EQ(last, 241u);
    EXPECT_EQ(h.bucketIndex(-5), 0u);
    EXPECT_EQ(h.bucketUpperBoundNs(0), 127);
    // Each bucket starts right after the one before, holds both its edges,
    // and is at most an eighth of its lower edge wide.
    for (std::size_t i = 1; i < last; ++i) {
        const std::int64_t lower = h.bucketUpperBoundNs(i - 1) + 1;
        const std::int64_t upper = h.bucketUpperBoundNs(i);
        ASSERT_EQ(h.bucketIndex(lower), i);
        ASSERT_EQ(h.bucketIndex(upper), i);
        ASSERT_LE(upper - lower + 1, lower / 8) << i;
    }
    EXPECT_EQ(h.bucketUpperBoundNs(1), 143);
    // 100 s is still measured; from 2^37 ns on everything is overflow.
    EXPECT_EQ(h.bucketUpperBoundNs(last - 1), (std::int64_t{1} << 37) - 1);
    EXPECT_EQ(h.bucketIndex(std::int64_t{1} << 37), last);
    EXPECT_EQ(h.bucketIndex(INT64_MAX), last);
    EXPECT_EQ(h.bucketUpperBoundNs(last), INT64_MAX);
    VelikTest::ThrowingAsserts throwing;
    EXPECT_THROW(h.bucketCountAt(last + 1), Velik::AssertException);
}

// A sample over seven decades: every quantile lies in the bucket of the
// sample's own value at that rank, so it is off by a bucket width at most.
TEST(LatencyHistogramTest, QuantilesStayWithinABucketOfTheSortedSample) {
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> exponent(1.5, 10.5);
    std::vector<std::int64_t> sample(20000);
    LatencyHistogram h;
    EXPECT_EQ(h.quantileNs(0.5), 0);  // empty
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
    EXPECT_EQ(h.quantileNs(7.0), sample.back());  // clamped
}

// Doubling by merging into itself fills a bucket beyond 32 bits: it stays
// full, a further record does not wrap it, and the count stays exact.
TEST(LatencyHistogramTest, AFullBucketStaysFullAndTheCountExact) {
    LatencyHistogram h;
    h.record(1000);
    h.record(-40);  // counts as 0
    for (int i = 0; i < 32; ++i) {
        h.merge(h);
    }
    const std::size_t bucket = h.bucketIndex(1000);
    EXPECT_EQ(h.bucketCountAt(bucket), 0xFFFF'FFFFu);
    h.record(1000);
    EXPECT_EQ(h.bucketCountAt(bucket), 0xFFFF'FFFFu);
    EXPECT_EQ(h.count(), (std::uint64_t{1} << 33) + 1);
    EXPECT_EQ(h.sumNs(), 1000 * ((std::int64_t{1} << 32) + 1));
    EXPECT_EQ(h.maxNs(), 1000);
    EXPECT_GE(h.quantileNs(0.75), h.bucketLowerBoundNs(bucket));
}

}  // namespace
