// Distribution of latencies in memory of a fixed size.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace price_client {

// Buckets of equal width up to 32 ns, then 32 buckets for each doubling: a value read from it is at most 1/32 too
// great. From kLimit on, 68 s, values count as kLimit - 1.
struct LatencyBuckets {
  static constexpr unsigned kSubBits = 5;
  static constexpr std::uint64_t kSub = 1U << kSubBits;
  static constexpr unsigned kLimitBits = 36;
  static constexpr std::uint64_t kLimit = std::uint64_t{1} << kLimitBits;
  static constexpr std::size_t kCount = (kLimitBits - kSubBits + 1) * kSub;

  static constexpr std::size_t IndexOf(std::uint64_t nanoseconds) {
    const auto value = nanoseconds < kLimit ? nanoseconds : kLimit - 1;
    if (value < kSub) {
      return static_cast<std::size_t>(value);
    }
    const auto doublings = static_cast<unsigned>(std::bit_width(value)) - 1 - kSubBits;
    return static_cast<std::size_t>((doublings + 1) * kSub + (value >> doublings) - kSub);
  }

  // The greatest value of the bucket.
  static constexpr std::uint64_t Highest(std::size_t index) {
    if (index < kSub) {
      return index;
    }
    const auto doublings = index / kSub - 1;
    return ((index % kSub + kSub + 1) << doublings) - 1;
  }
};

// A value: copies are independent. Nanoseconds.
class LatencyHistogram {
 public:
  void Record(std::uint64_t nanoseconds) noexcept {
    ++m_counts[LatencyBuckets::IndexOf(nanoseconds)];
    ++m_total;
    m_max = std::max(m_max, nanoseconds);
  }

  void Add(const LatencyHistogram& other);

  // What was recorded since then, when earlier was a copy of this one. Its maximum is that of a bucket.
  LatencyHistogram Since(const LatencyHistogram& earlier) const;

  std::uint64_t Count() const { return m_total; }
  std::uint64_t Max() const { return m_max; }

  // The least value that at least the fraction (0 to 1) of all values do not exceed; 0 when there are none.
  std::uint64_t Quantile(double fraction) const;

 private:
  std::array<std::uint64_t, LatencyBuckets::kCount> m_counts{};
  std::uint64_t m_total = 0;
  std::uint64_t m_max = 0;
};

}  // namespace price_client
