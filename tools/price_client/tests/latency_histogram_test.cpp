#include "latency_histogram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace price_client {
namespace {

TEST(LatencyHistogram, BucketsCoverEveryValueInOrderWithoutHoles) {
  for (std::size_t i = 0; i + 1 < LatencyBuckets::kCount; ++i) {
    ASSERT_EQ(LatencyBuckets::IndexOf(LatencyBuckets::Highest(i)), i);
    ASSERT_EQ(LatencyBuckets::IndexOf(LatencyBuckets::Highest(i) + 1), i + 1);
  }
  EXPECT_EQ(LatencyBuckets::Highest(LatencyBuckets::kCount - 1), LatencyBuckets::kLimit - 1);
  EXPECT_EQ(LatencyBuckets::IndexOf(~std::uint64_t{0}), LatencyBuckets::kCount - 1);
}

TEST(LatencyHistogram, QuantilesAreAtMostOneThirtySecondTooGreat) {
  std::mt19937_64 random(1);
  std::lognormal_distribution<double> latencies(9, 2);
  LatencyHistogram histogram;
  std::vector<std::uint64_t> values;
  for (int i = 0; i < 10'000; ++i) {
    histogram.Record(values.emplace_back(static_cast<std::uint64_t>(latencies(random))));
  }
  std::sort(values.begin(), values.end());
  for (const double fraction : {0.0, 0.001, 0.5, 0.9, 0.99, 0.999, 1.0}) {
    const auto rank = std::max<std::size_t>(1, static_cast<std::size_t>(std::ceil(fraction * 10'000)));
    const auto exact = values[rank - 1];
    EXPECT_GE(histogram.Quantile(fraction), exact) << fraction;
    EXPECT_LE(histogram.Quantile(fraction), exact + exact / 32 + 1) << fraction;
  }
  EXPECT_EQ(histogram.Max(), values.back());
}

}  // namespace
}  // namespace price_client
