#include "page_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <utility>

#include "layout.h"
#include "zq/posix/descriptor.h"
#include "zq/posix/error.h"

namespace zq::statistics {

namespace {

constexpr std::uint64_t kRecentMaximumSlots = 10;  // with the one that is being filled
constexpr std::uint64_t kSlotsOf10s = 2;
constexpr std::uint64_t kSlotsOf60s = 12;

class Damaged : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Source {
  std::function<void(std::uint64_t offset, std::span<std::uint64_t> to)> copy;  // as many bytes as there is room for
  std::function<std::uint64_t()> bytes;                                         // that there are now
};

std::vector<std::uint64_t> CopyOf(const Source& source, std::uint64_t begin, std::uint64_t end) {
  std::vector<std::uint64_t> words((end - begin) / sizeof(std::uint64_t));
  source.copy(begin, words);
  return words;
}

// Takes values from bytes that may be anything.
class Taker {
 public:
  explicit Taker(std::span<const std::byte> bytes) : m_bytes(bytes) {}

  std::uint64_t Number(std::size_t size) {
    std::uint64_t number = 0;
    const auto bytes = Bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
      number |= std::to_integer<std::uint64_t>(bytes[i]) << (8 * i);
    }
    return number;
  }

  std::string Text() {
    std::string text;
    for (const std::byte byte : Bytes(Number(2))) {
      text.push_back(std::to_integer<char>(byte));
    }
    return text;
  }

  std::span<const std::byte> Bytes(std::uint64_t size) {
    if (size > m_bytes.size()) {
      throw Damaged("something in it is longer than the place where it stands");
    }
    const auto bytes = m_bytes.first(static_cast<std::size_t>(size));
    m_bytes = m_bytes.subspan(static_cast<std::size_t>(size));
    return bytes;
  }

 private:
  std::span<const std::byte> m_bytes;
};

std::unique_ptr<const Kind> TakeKind(Taker bytes) {
  auto kind = std::make_unique<Kind>();
  Taker description(bytes.Bytes(bytes.Number(4)));
  kind->name = description.Text();
  kind->help = description.Text();
  kind->labels.resize(description.Number(2));
  for (std::string& label : kind->labels) {
    label = description.Text();
  }
  for (auto fields = description.Number(2); fields != 0; --fields) {
    Field& field = kind->fields.emplace_back();
    field.type = static_cast<FieldType>(description.Number(4));
    if (field.type < FieldType::kCounter || field.type > FieldType::kHistogram) {
      throw Damaged("a field of \"" + kind->name + "\" is of no known type");
    }
    field.name = description.Text();
    field.unit = description.Text();
    field.help = description.Text();
  }
  return kind;
}

void AddCells(Distribution& distribution, std::span<const std::uint64_t> cells) {
  distribution.count += cells[0];
  distribution.sum += cells[1];
  distribution.maximum = std::max(distribution.maximum, cells[2]);
  for (std::size_t bucket = 0; bucket < kBuckets; ++bucket) {
    distribution.buckets[bucket] += cells[3 + bucket];
  }
}

// Calls with the cells of each slot that is among the last ones.
template <class F>
void ForSlots(std::span<const std::uint64_t> slots, std::size_t cells, std::uint64_t current, std::uint64_t last,
              const F& use) {
  for (; !slots.empty(); slots = slots.subspan(1 + cells)) {
    const std::uint64_t number = slots[0];
    if (number <= current && number + last > current) {
      use(slots.subspan(1, cells));
    }
  }
}

Value TakeLarge(FieldType type, std::span<const std::uint64_t> cells, std::uint64_t now) {
  Value value;
  if (type == FieldType::kRecentMaximum) {
    value.number = static_cast<std::int64_t>(cells[0]);
    ForSlots(cells.subspan(1), 1, now / kMaximumSlotNanoseconds, kRecentMaximumSlots,
             [&](auto slot) { value.recentMaximum = std::max(value.recentMaximum, slot[0]); });
    return value;
  }
  AddCells(value.all.Emplace(), cells);
  const auto slots = cells.subspan(kDistributionCells);
  const std::uint64_t current = now / kHistogramSlotNanoseconds;
  const auto window = [&](OptionalDistribution& windowed, std::uint64_t last) {
    windowed.Emplace();
    ForSlots(slots, kDistributionCells, current, last, [&](auto slot) { AddCells(*windowed, slot); });
  };
  window(value.last10s, kSlotsOf10s + 1);
  window(value.last60s, kSlotsOf60s + 1);
  value.number = static_cast<std::int64_t>(value.all->count);
  return value;
}

// One look at a page: what must not have changed meanwhile is looked at twice.
class Look {
 public:
  explicit Look(Source source) : m_source(std::move(source)) {}

  Snapshot Take() {
    ReadHeader();
    m_snapshot.takenMonotonic = Now();
    const std::uint64_t indexBegin = m_header.indexOffset;
    const std::uint64_t indexEnd = indexBegin + m_indexUsed * sizeof(std::uint64_t);
    const std::vector<std::uint64_t> index = CopyOf(m_source, indexBegin, indexEnd);
    ReadHeader();  // again: the rows just seen may be of kinds, and in a part of the heap, that are newer
    m_heap = CopyOf(m_source, m_header.heapOffset, m_heapEnd);
    const std::vector<std::uint64_t> indexAfter = CopyOf(m_source, indexBegin, indexEnd);
    ReadKinds();
    for (std::size_t i = 0; i < index.size(); ++i) {
      // A row that came or went while it was copied is left out.
      if (index[i] != 0 && index[i] == indexAfter[i]) {
        m_snapshot.rows.push_back(ReadRow(index[i]));
      }
    }
    m_snapshot.bytes = indexEnd + (m_heapEnd - m_header.heapOffset);
    return std::move(m_snapshot);
  }

 private:
  // The header's constant part, without the atomic variables behind it.
  struct Constants {
    std::array<char, 8> magic;
    std::uint32_t version;
    std::uint32_t headerBytes;
    std::uint64_t layoutChecksum;
    std::uint64_t bytesMax;
    std::uint64_t indexOffset;
    std::uint64_t rowsMax;
    std::uint64_t heapOffset;
    std::int32_t process;
    std::uint32_t reserved;
    std::uint64_t startTicks;
    std::int64_t startRealtime;
    std::uint64_t startMonotonic;
    std::array<char, 64> program;
  };
  static_assert(sizeof(Constants) == offsetof(Header, indexUsed));

  void ReadHeader() {
    m_words = CopyOf(m_source, 0, sizeof(Header));
    std::memcpy(&m_header, m_words.data(), sizeof m_header);
    if (m_header.magic != kMagic) {
      throw Damaged("it is no page of statistics");
    }
    if (m_header.version != kVersion || m_header.headerBytes != sizeof(Header) ||
        m_header.layoutChecksum != LayoutChecksum()) {
      throw Damaged("it was written by another version (page version " + std::to_string(m_header.version) +
                    ", this program's is " + std::to_string(kVersion) + "); use the program's own tools");
    }
    m_indexUsed = Word(offsetof(Header, indexUsed));
    m_heapEnd = Word(offsetof(Header, heapEnd));
    m_kindsUsed = Word(offsetof(Header, kindsUsed));
    const std::uint64_t indexOffset = m_header.indexOffset;
    const std::uint64_t heapOffset = m_header.heapOffset;
    if (m_header.bytesMax > kPageBytesMax || indexOffset < sizeof(Header) || indexOffset % kUnit != 0 ||
        heapOffset % kUnit != 0 || heapOffset < indexOffset || m_heapEnd < heapOffset ||
        m_heapEnd > m_header.bytesMax || m_heapEnd > m_source.bytes() || m_heapEnd % kUnit != 0 ||
        m_indexUsed > (heapOffset - indexOffset) / sizeof(std::uint64_t) || m_kindsUsed > kKindsMax) {
      throw Damaged("its size or its parts' places are wrong");
    }
    m_snapshot.process = m_header.process;
    m_snapshot.program =
        std::string(m_header.program.data(), ::strnlen(m_header.program.data(), m_header.program.size()));
    m_snapshot.startTicks = m_header.startTicks;
    m_snapshot.startRealtime = m_header.startRealtime;
    m_snapshot.startMonotonic = m_header.startMonotonic;
    m_snapshot.rowsInOther = Word(offsetof(Header, rowsInOther));
  }

  std::uint64_t Word(std::size_t offset) const { return m_words[offset / sizeof(std::uint64_t)]; }

  // From a place in the heap to its end.
  std::span<const std::byte> Heap(std::uint64_t offset) const {
    if (offset < m_header.heapOffset || offset >= m_heapEnd) {
      throw Damaged("a place in it lies outside of it");
    }
    return std::as_bytes(std::span(m_heap)).subspan(offset - m_header.heapOffset);
  }

  void ReadKinds() {
    const auto* const kinds =
        reinterpret_cast<const std::uint32_t*>(m_words.data()) + offsetof(Header, kinds) / sizeof(std::uint32_t);
    for (std::size_t i = 0; i < m_kindsUsed; ++i) {
      m_snapshot.kinds.push_back(TakeKind(Taker(Heap(std::uint64_t{kinds[i]} * kUnit))));
      m_layouts.emplace_back(m_snapshot.kinds.back()->fields);
    }
  }

  RowValues ReadRow(std::uint64_t entry) {
    Taker bytes(Heap(OffsetOf(entry)));
    RowHeader header{};
    std::memcpy(&header, bytes.Bytes(sizeof header).data(), sizeof header);
    if (header.kind >= m_snapshot.kinds.size() || header.cells != m_layouts[header.kind].cells) {
      throw Damaged("a row is of no known kind");
    }
    RowValues row{.kind = m_snapshot.kinds[header.kind].get(), .id = IdOf(entry)};
    const auto cellBytes = bytes.Bytes(header.cells * sizeof(std::uint64_t));
    // No two rows share a block: otherwise a small page could take any amount of memory to read.
    m_rowBytes += sizeof header + cellBytes.size() + header.labelBytes;
    if (m_rowBytes > m_heapEnd - m_header.heapOffset) {
      throw Damaged("its rows take more room than it has");
    }
    std::vector<std::uint64_t> cells(header.cells);
    // Of a kind without fields there are none, and no memory to copy to.
    std::copy(cellBytes.begin(), cellBytes.end(), std::as_writable_bytes(std::span(cells)).begin());
    Taker labels(bytes.Bytes(header.labelBytes));
    for (std::size_t i = 0; i < row.kind->labels.size(); ++i) {
      row.labels.push_back(labels.Text());
    }
    const details::KindLayout& layout = m_layouts[header.kind];
    for (std::size_t i = 0; i < layout.offsets.size(); ++i) {
      if (i < layout.columnCells) {
        row.values.emplace_back().number = static_cast<std::int64_t>(cells[i] + cells[layout.columnCells + i]);
      } else {
        row.values.push_back(
            TakeLarge(row.kind->fields[i].type, LargeCells(row, i, cells, layout), m_snapshot.takenMonotonic));
      }
    }
    return row;
  }

  static std::span<const std::uint64_t> LargeCells(const RowValues& row, std::size_t field,
                                                   std::span<const std::uint64_t> cells,
                                                   const details::KindLayout& layout) {
    return cells.subspan(layout.offsets[field],
                         row.kind->fields[field].type == FieldType::kHistogram ? kHistogramCells : kMaximumCells);
  }

  const Source m_source;
  Constants m_header{};
  std::vector<std::uint64_t> m_words;  // of the header
  std::uint64_t m_indexUsed = 0;
  std::uint64_t m_heapEnd = 0;
  std::uint64_t m_kindsUsed = 0;
  std::vector<std::uint64_t> m_heap;
  std::uint64_t m_rowBytes = 0;  // of the rows read so far
  std::vector<details::KindLayout> m_layouts;
  Snapshot m_snapshot;
};

}  // namespace

Snapshot ReadMemory(const std::byte* page) {
  const auto copy = [&](std::uint64_t offset, std::span<std::uint64_t> to) {
    const auto* from = reinterpret_cast<const details::Cell*>(page + offset);
    for (std::uint64_t& word : to) {
      word = (from++)->load(std::memory_order_acquire);
    }
  };
  return Look({.copy = copy, .bytes = [] { return kPageBytesMax; }}).Take();
}

Snapshot ReadPage(const std::string& path) try {
  const posix::Descriptor file =
      posix::Checked(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC), "opening it");
  const auto examine = [&] {
    struct stat status {};
    if (::fstat(file.Get(), &status) != 0) {
      posix::ThrowErrno("examining it");
    }
    return status;
  };
  const struct stat status = examine();
  if (!S_ISREG(status.st_mode)) {
    throw Damaged("it is no file");
  }
  if (status.st_uid != ::geteuid()) {
    throw Damaged("it belongs to user " + std::to_string(status.st_uid));
  }
  // The system copies aligned words whole, and truncating the file ends the reading, not the reader.
  const auto copy = [&](std::uint64_t offset, std::span<std::uint64_t> to) {
    auto bytes = std::as_writable_bytes(to);
    while (!bytes.empty()) {
      const ssize_t got = ::pread(file.Get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
      if (got < 0 && errno != EINTR) {
        posix::ThrowErrno("reading it");
      }
      if (got == 0) {
        throw Damaged("it is shorter than it says");
      }
      if (got > 0) {
        bytes = bytes.subspan(static_cast<std::size_t>(got));
        offset += static_cast<std::uint64_t>(got);
      }
    }
  };
  return Look({.copy = copy, .bytes = [&] { return static_cast<std::uint64_t>(examine().st_size); }}).Take();
} catch (const std::exception& error) {
  throw std::runtime_error(path + ": " + error.what());
}

std::uint64_t Distribution::Quantile(double share) const noexcept {
  const auto total = static_cast<double>(count);
  std::uint64_t seen = 0;
  for (std::size_t bucket = 0; bucket < kBuckets; ++bucket) {
    seen += buckets[bucket];
    if (seen > 0 && static_cast<double>(seen) >= share * total) {
      return std::min(BucketBegin(bucket + 1) - 1, maximum);
    }
  }
  return maximum;
}

std::string_view RowValues::Label(std::string_view name) const noexcept {
  const auto found = std::find(kind->labels.begin(), kind->labels.end(), name);
  return found == kind->labels.end() ? std::string_view()
                                     : labels[static_cast<std::size_t>(found - kind->labels.begin())];
}

const Value* RowValues::Find(std::string_view field) const noexcept {
  const auto found =
      std::find_if(kind->fields.begin(), kind->fields.end(), [&](const Field& one) { return one.name == field; });
  return found == kind->fields.end() ? nullptr : &values[static_cast<std::size_t>(found - kind->fields.begin())];
}

std::vector<const RowValues*> Snapshot::Of(std::string_view kind) const {
  std::vector<const RowValues*> of;
  for (const RowValues& row : rows) {
    if (row.kind->name == kind) {
      of.push_back(&row);
    }
  }
  return of;
}

}  // namespace zq::statistics
