// How a program writes its statistics: a row for each object that is counted.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "zq/statistics/kind.h"

#pragma GCC visibility push(default)

namespace zq::statistics {

class Page;

// Nanoseconds of the monotonic clock.
std::uint64_t Now() noexcept;

namespace details {

struct KindLayout;

using Cell = std::atomic<std::uint64_t>;
static_assert(sizeof(Cell) == sizeof(std::uint64_t) && Cell::is_always_lock_free);

// Tells the threads that live at one time apart by its address.
inline thread_local char g_threadMark [[gnu::tls_model("initial-exec")]] = 0;

}  // namespace details

// The counters and gauges of a row, as seen by the thread that asked for them.
class Cells {
 public:
  // Inlined also where it is visible to other libraries, as it is called several times for each message.
  [[gnu::always_inline]] void Add(std::size_t field, std::uint64_t amount = 1) const noexcept {
    details::Cell& cell = m_column[field];
    if (m_own) {
      cell.store(cell.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
    } else {
      cell.fetch_add(amount, std::memory_order_relaxed);
    }
  }
  void Subtract(std::size_t field, std::uint64_t amount = 1) const noexcept { Add(field, ~amount + 1); }

 private:
  friend class Row;
  Cells(details::Cell* column, bool own) noexcept : m_column(column), m_own(own) {}

  details::Cell* m_column;
  bool m_own;
};

// Owns one row of a page, from its construction to its destruction. The first thread that adds to it writes cells of
// its own, with plain stores; all others share another set, with atomic additions. Nothing here throws, waits or
// allocates but construction and destruction, which take a lock. A row for which the page has no room is counted in the
// row "other" of its kind.
//
// Threads: any may Add. Set and Record of one field: one thread at a time.
class Row {
 public:
  // Of nothing: what is written is nowhere to be seen.
  Row() noexcept;
  // labels: as many as the kind has; what is missing is empty. kind need not outlive this call.
  Row(const Kind& kind, std::initializer_list<std::string_view> labels) noexcept;  // on the process's page
  Row(Page& page, const Kind& kind, std::initializer_list<std::string_view> labels) noexcept;
  ~Row();
  Row(const Row&) = delete;
  Row& operator=(const Row&) = delete;

  // For several additions at once.
  Cells Mine() noexcept {
    const void* const mark = &details::g_threadMark;
    return m_owner.load(std::memory_order_relaxed) == mark ? Cells(m_cells, true) : OfAnother(mark);
  }
  // The same for fields to which nothing is added in another way, and by one thread at a time: plain stores whichever
  // thread it is.
  Cells Serial() noexcept { return m_page != nullptr ? Cells(m_cells, true) : OfAnother(nullptr); }
  void Add(std::size_t field, std::uint64_t amount = 1) noexcept { Mine().Add(field, amount); }
  void Subtract(std::size_t field, std::uint64_t amount = 1) noexcept { Mine().Subtract(field, amount); }

  // A gauge that nobody adds to.
  void Set(std::size_t field, std::int64_t value) noexcept {
    if (m_page != nullptr) {
      m_cells[field].store(static_cast<std::uint64_t>(value), std::memory_order_relaxed);
    }
  }

  // Of a recent maximum or a histogram, at a time of Now(). In the row "other" these stay empty.
  void RecordMaximum(std::size_t field, std::uint64_t value, std::uint64_t now) noexcept;
  void RecordInHistogram(std::size_t field, std::uint64_t value, std::uint64_t now) noexcept;

 private:
  friend class Page;

  Cells OfAnother(const void* mark) noexcept;
  details::Cell* LargeField(std::size_t field) const noexcept;

  std::atomic<const void*> m_owner{nullptr};  // a thread's mark
  details::Cell* m_cells;                     // the owner's column, then the one of all others, then large fields
  const details::KindLayout* m_layout;
  Page* m_page = nullptr;     // null: nothing to give back
  std::uint32_t m_index = 0;  // of the row in the page
};

}  // namespace zq::statistics

#pragma GCC visibility pop
