// What statistics there are: each kind of row has a name, labels and fields.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace zq::statistics {

enum class FieldType : std::uint32_t {
  kCounter = 1,        // grows from 0
  kGauge = 2,          // goes up and down, signed
  kRecentMaximum = 3,  // the largest value recorded in the last 10 s, and of all
  kHistogram = 4,      // how values are distributed: of the last 10 s, of the last minute, and of all
};

struct Field {
  std::string name;  // lower_case, without the unit
  FieldType type = FieldType::kCounter;
  std::string unit;  // "bytes", "nanoseconds", ...; empty for a number of things
  std::string help;  // a sentence for those who look at it
};

// Kinds of one name are the same in all of a process. Fields that hold one number, counters and gauges, come first.
// They are written by their place in `fields`, so it has an enumeration beside it.
struct Kind {
  std::string name;  // lower_case
  std::string help;
  std::vector<std::string> labels;  // names, lower_case; say which of the kind's objects a row is about
  std::vector<Field> fields;
};

// Cells that the fields of a row take; a cell is 8 bytes.
inline constexpr std::size_t kOctaves = 40;
inline constexpr std::size_t kBucketsPerOctave = 4;
inline constexpr std::size_t kBuckets = (kOctaves - 1) * kBucketsPerOctave;
inline constexpr std::size_t kHistogramSlots = 13;
inline constexpr std::uint64_t kHistogramSlotNanoseconds = 5'000'000'000;
inline constexpr std::size_t kMaximumSlots = 11;
inline constexpr std::uint64_t kMaximumSlotNanoseconds = 1'000'000'000;

// The bucket of a value: values below 4 have one each, then every power of two has four. What is too large for the last
// bucket is in it.
constexpr std::size_t BucketOf(std::uint64_t value) noexcept {
  if (value < kBucketsPerOctave) {
    return static_cast<std::size_t>(value);
  }
  std::size_t octave = 2;  // of the value's highest bit
  for (std::uint64_t rest = value >> 3U; rest != 0; rest >>= 1U) {
    ++octave;
  }
  if (octave >= kOctaves) {
    return kBuckets - 1;
  }
  return kBucketsPerOctave * (octave - 1) + static_cast<std::size_t>((value >> (octave - 2)) & 3U);
}

// The smallest value of a bucket; of the one after the last, the end of the range.
constexpr std::uint64_t BucketBegin(std::size_t bucket) noexcept {
  if (bucket < kBucketsPerOctave) {
    return bucket;
  }
  const std::size_t octave = bucket / kBucketsPerOctave + 1;
  return (kBucketsPerOctave + bucket % kBucketsPerOctave) << (octave - 2);
}

}  // namespace zq::statistics

#pragma GCC visibility pop
