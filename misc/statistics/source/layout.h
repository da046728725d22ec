// The bytes of a page, as docs/statistics.md describes them. Everything is in the machine's byte order.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zq/statistics/kind.h"
#include "zq/statistics/row.h"

namespace zq::statistics {

inline constexpr std::array<char, 8> kMagic{'z', 'q', 's', 't', 'a', 't', 's', '\0'};
inline constexpr std::uint32_t kVersion = 1;
inline constexpr std::size_t kUnit = 64;  // blocks begin at and take multiples of it
inline constexpr std::size_t kKindsMax = 256;
inline constexpr std::size_t kPageBytesMax = std::size_t{1} << 30;
inline constexpr std::size_t kTextMax = 1024;  // bytes of a label

struct Header {
  std::array<char, 8> magic;
  std::uint32_t version;
  std::uint32_t headerBytes;
  std::uint64_t layoutChecksum;
  std::uint64_t bytesMax;     // that the page can have; the file has as many as are in use or a few more
  std::uint64_t indexOffset;  // of the index: 8 bytes for each row
  std::uint64_t rowsMax;      // entries of the index
  std::uint64_t heapOffset;   // of the blocks
  std::int32_t process;
  std::uint32_t reserved;
  std::uint64_t startTicks;
  std::int64_t startRealtime;
  std::uint64_t startMonotonic;
  std::array<char, 64> program;  // ends with a null byte

  // These change.
  std::atomic<std::uint64_t> indexUsed;  // entries that have ever been in use
  std::atomic<std::uint64_t> heapEnd;    // offset of the first byte that never was part of a block
  std::atomic<std::uint64_t> rowsInOther;
  std::atomic<std::uint64_t> kindsUsed;
  std::array<std::atomic<std::uint32_t>, kKindsMax> kinds;  // offset of a kind's block, in units
};

// A block with a kind begins with its number of bytes behind this; then come, each text as a two-byte length and its
// bytes: name, help, the number of labels (2 bytes), their names, the number of fields (2 bytes), and of each field
// type (4 bytes), name, unit, help.
//
// A block with a row:
struct RowHeader {
  std::uint32_t kind;
  std::uint32_t cells;       // that follow at once, 8 bytes each
  std::uint32_t labelBytes;  // that follow the cells: of each label a two-byte length and its bytes
  std::uint32_t reserved;
};

// An entry of the index: 0, or a number that no other row has had in the upper half and the block's offset in units in
// the lower one.
constexpr std::uint64_t IndexEntry(std::uint32_t id, std::uint64_t offset) noexcept {
  return std::uint64_t{id} << 32U | offset / kUnit;
}
constexpr std::uint64_t OffsetOf(std::uint64_t entry) noexcept { return (entry & 0xffff'ffffU) * kUnit; }
constexpr std::uint64_t IdOf(std::uint64_t entry) noexcept { return entry >> 32U; }

// The same wherever the layout above and the buckets are the same.
std::uint64_t LayoutChecksum() noexcept;

constexpr bool IsLarge(FieldType type) noexcept {
  return type == FieldType::kRecentMaximum || type == FieldType::kHistogram;
}

// Cells of large fields. A recent maximum: of all, then of each slot its number and maximum. A histogram: of all, then
// of each slot its number and the like. A slot's number is the time divided by the slot's duration; slots are taken in
// turn.
inline constexpr std::size_t kDistributionCells = 3 + kBuckets;  // count, sum, maximum, buckets
inline constexpr std::size_t kMaximumCells = 1 + 2 * kMaximumSlots;
inline constexpr std::size_t kHistogramCells = kDistributionCells + kHistogramSlots * (1 + kDistributionCells);

namespace details {

// Where the cells of a kind's fields are.
struct KindLayout {
  explicit KindLayout(const std::vector<Field>& fields);

  std::size_t columnCells = 0;
  std::size_t cells = 0;
  std::vector<std::size_t> offsets;  // by field; of counters and gauges in a column, of large fields in the row
};

}  // namespace details

}  // namespace zq::statistics
