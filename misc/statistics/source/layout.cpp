#include "layout.h"

#include <cstddef>
#include <stdexcept>

namespace zq::statistics {

std::uint64_t LayoutChecksum() noexcept {
  const std::array<std::uint64_t, 16> layout{
      kVersion,
      kUnit,
      sizeof(Header),
      offsetof(Header, indexUsed),
      sizeof(RowHeader),
      kKindsMax,
      kOctaves,
      kBucketsPerOctave,
      kHistogramSlots,
      kMaximumSlots,
      kHistogramSlotNanoseconds,
      kMaximumSlotNanoseconds,
      kMaximumCells,
      kHistogramCells,
      kDistributionCells,
      0x0102030405060708,
  };
  // FNV-1a.
  std::uint64_t sum = 0xcbf29ce484222325;
  for (const std::uint64_t number : layout) {
    for (unsigned shift = 0; shift < 64; shift += 8) {
      sum = (sum ^ (number >> shift & 0xffU)) * 0x100000001b3;
    }
  }
  return sum;
}

namespace details {

KindLayout::KindLayout(const std::vector<Field>& fields) {
  for (const Field& field : fields) {
    if (!IsLarge(field.type)) {
      if (columnCells != offsets.size()) {
        throw std::logic_error("the field " + field.name + " comes after a larger one");
      }
      offsets.push_back(columnCells++);
    } else {
      offsets.push_back(cells);
      cells += field.type == FieldType::kHistogram ? kHistogramCells : kMaximumCells;
    }
  }
  for (std::size_t field = columnCells; field < offsets.size(); ++field) {
    offsets[field] += 2 * columnCells;
  }
  cells += 2 * columnCells;
}

}  // namespace details

}  // namespace zq::statistics
