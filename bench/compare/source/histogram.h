// Counts durations, and takes no memory meanwhile.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace compare {

// Each power of two has the same number of buckets of the same width, so that what a bucket holds differs by less than
// one percent; values up to that number have one each.
//
// Threads: one that adds. May be in memory that processes share.
class Histogram {
 public:
  static constexpr int kBits = 36;
  static constexpr std::uint64_t kLongest = (std::uint64_t{1} << kBits) - 1;  // nanoseconds, more than a minute

  static constexpr int kExactBits = 8;  // values of so many bits have a bucket each
  static constexpr std::size_t kBuckets = (kBits - kExactBits + 2) << (kExactBits - 1);

  static constexpr std::size_t BucketOf(std::uint64_t value) noexcept {
    const int shift = std::max(static_cast<int>(std::bit_width(value)) - kExactBits, 0);
    return (static_cast<std::size_t>(shift) << (kExactBits - 1)) + (value >> shift);
  }
  static constexpr std::uint64_t LeastOf(std::size_t bucket) noexcept {
    const std::size_t shift = std::max<std::size_t>(bucket >> (kExactBits - 1), 1) - 1;
    return std::uint64_t{bucket - (shift << (kExactBits - 1))} << shift;
  }

  void Add(std::int64_t nanoseconds) noexcept {
    const std::uint64_t value = std::min(static_cast<std::uint64_t>(std::max<std::int64_t>(nanoseconds, 0)), kLongest);
    ++m_counts[BucketOf(value)];
    ++m_count;
    m_greatest = std::max(m_greatest, value);
  }

  std::uint64_t Count() const noexcept { return m_count; }
  std::uint64_t Greatest() const noexcept { return m_greatest; }

  // The middle of the bucket in which that share of all values ends; 0 when there are none.
  std::uint64_t Quantile(double share) const noexcept {
    const auto rank =
        std::max<std::uint64_t>(static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(m_count))), 1);
    std::uint64_t seen = 0;
    for (std::size_t bucket = 0; bucket < m_counts.size(); ++bucket) {
      seen += m_counts[bucket];
      if (seen >= rank) {
        return std::min((LeastOf(bucket) + LeastOf(bucket + 1) - 1) / 2, m_greatest);
      }
    }
    return m_greatest;
  }

 private:
  std::array<std::uint64_t, kBuckets> m_counts{};
  std::uint64_t m_count = 0;
  std::uint64_t m_greatest = 0;
};

}  // namespace compare
