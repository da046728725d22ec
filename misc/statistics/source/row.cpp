#include "zq/statistics/row.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>

#include "layout.h"
#include "page.h"

namespace zq::statistics {

namespace {

// Where rows of nothing write, whatever field it is.
constexpr std::size_t kNowhereCells = 256;
std::array<details::Cell, kNowhereCells> g_nowhere;

void Increase(details::Cell& cell, std::uint64_t amount) noexcept {
  cell.store(cell.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
}

void Raise(details::Cell& cell, std::uint64_t value) noexcept {
  if (cell.load(std::memory_order_relaxed) < value) {
    cell.store(value, std::memory_order_relaxed);
  }
}

void AddTo(details::Cell* distribution, std::uint64_t value, std::size_t bucket) noexcept {
  Increase(distribution[0], 1);
  Increase(distribution[1], value);
  Raise(distribution[2], value);
  Increase(distribution[3 + bucket], 1);
}

// The slot of a moment, emptied when it was of an earlier one. Its number comes last, and is 0 meanwhile.
details::Cell* TurnOver(details::Cell* slots, std::size_t count, std::size_t cells, std::uint64_t number) noexcept {
  details::Cell* const slot = slots + number % count * (1 + cells);
  if (slot->load(std::memory_order_relaxed) != number) {
    slot->store(0, std::memory_order_relaxed);
    for (std::size_t i = 1; i <= cells; ++i) {
      slot[i].store(0, std::memory_order_release);
    }
    slot->store(number, std::memory_order_release);
  }
  return slot + 1;
}

}  // namespace

std::uint64_t Now() noexcept {
  return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1));
}

Row::Row() noexcept : m_cells(g_nowhere.data()), m_layout(nullptr) {}

Row::Row(const Kind& kind, std::initializer_list<std::string_view> labels) noexcept
    : Row(Page::OfProcess(), kind, labels) {}

Row::Row(Page& page, const Kind& kind, std::initializer_list<std::string_view> labels) noexcept : Row() {
  try {
    const Page::Place place = page.Make(kind, labels);
    if (place.cells == nullptr) {
      return;
    }
    m_cells = place.cells;
    m_layout = place.layout;
    if (place.other) {
      m_owner = this;  // no thread's mark, so all take the common column
    } else {
      m_page = &page;
      m_index = place.index;
    }
  } catch (const std::exception&) {
    // No memory: a row of nothing.
  }
}

Row::~Row() {
  if (m_page != nullptr) {
    m_page->Give(m_index);
  }
}

Cells Row::OfAnother(const void* mark) noexcept {
  const void* nobody = nullptr;
  if (m_owner.compare_exchange_strong(nobody, mark, std::memory_order_relaxed)) {
    return {m_cells, true};
  }
  return {m_layout != nullptr ? m_cells + m_layout->columnCells : m_cells, false};
}

void Row::RecordMaximum(std::size_t field, std::uint64_t value, std::uint64_t now) noexcept {
  if (m_page != nullptr) {
    details::Cell* const cells = m_cells + m_layout->offsets[field];
    Raise(cells[0], value);
    Raise(*TurnOver(cells + 1, kMaximumSlots, 1, now / kMaximumSlotNanoseconds), value);
  }
}

void Row::RecordInHistogram(std::size_t field, std::uint64_t value, std::uint64_t now) noexcept {
  if (m_page != nullptr) {
    details::Cell* const cells = m_cells + m_layout->offsets[field];
    const std::size_t bucket = BucketOf(value);
    AddTo(cells, value, bucket);
    AddTo(TurnOver(cells + kDistributionCells, kHistogramSlots, kDistributionCells, now / kHistogramSlotNanoseconds),
          value, bucket);
  }
}

}  // namespace zq::statistics
