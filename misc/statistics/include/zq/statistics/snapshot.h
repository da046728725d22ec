// How statistics are read: of another process from its page, of one's own from memory.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zq/statistics/kind.h"

#pragma GCC visibility push(default)

namespace zq::statistics {

// How many values fell into each bucket.
struct Distribution {
  std::uint64_t count = 0;
  std::uint64_t sum = 0;
  std::uint64_t maximum = 0;
  std::array<std::uint64_t, kBuckets> buckets{};

  // The value that the share (0 to 1) of all values does not exceed, to the precision of a bucket (a quarter of a power
  // of two); 0 when there are none.
  std::uint64_t Quantile(double share) const noexcept;
};

// One or none, like std::optional, but no larger than a pointer: there are many values, and few are distributions.
class OptionalDistribution {
 public:
  OptionalDistribution() = default;
  OptionalDistribution(const Distribution& value) : m_value(std::make_unique<Distribution>(value)) {}
  OptionalDistribution(const OptionalDistribution& other)
      : m_value(other ? std::make_unique<Distribution>(*other) : nullptr) {}
  OptionalDistribution(OptionalDistribution&&) noexcept = default;
  OptionalDistribution& operator=(OptionalDistribution other) noexcept {
    m_value.swap(other.m_value);
    return *this;
  }
  ~OptionalDistribution() = default;

  Distribution& Emplace() {
    m_value = std::make_unique<Distribution>();
    return *m_value;
  }

  explicit operator bool() const noexcept { return m_value != nullptr; }
  Distribution& operator*() noexcept { return *m_value; }
  const Distribution& operator*() const noexcept { return *m_value; }
  Distribution* operator->() noexcept { return m_value.get(); }
  const Distribution* operator->() const noexcept { return m_value.get(); }

 private:
  std::unique_ptr<Distribution> m_value;
};

struct Value {
  std::int64_t number = 0;          // a counter's, as unsigned, or a gauge's; a recent maximum's of all
  std::uint64_t recentMaximum = 0;  // of the last 10 s
  // A histogram's; else empty. The windows end with the snapshot and are up to 5 s longer than their names say.
  OptionalDistribution all;
  OptionalDistribution last10s;
  OptionalDistribution last60s;

  std::uint64_t Count() const noexcept { return static_cast<std::uint64_t>(number); }
};

struct RowValues {
  const Kind* kind = nullptr;       // in Snapshot::kinds
  std::vector<std::string> labels;  // as many as kind->labels; in the row "other" all are "other"
  std::uint64_t id = 0;             // the same as long as the row lives; no other row of the process has it
  std::vector<Value> values;        // as many as kind->fields

  // The text of the label of this name; empty when the kind has none such.
  std::string_view Label(std::string_view name) const noexcept;
  // The value of the field of this name, or null.
  const Value* Find(std::string_view field) const noexcept;
};

// Move only: rows point into it.
struct Snapshot {
  Snapshot() = default;
  Snapshot(Snapshot&&) = default;
  Snapshot& operator=(Snapshot&&) = default;

  pid_t process = 0;                 // in its own process namespace
  std::string program;               // the executable's name
  std::uint64_t startTicks = 0;      // the process's start, as in /proc/<pid>/stat
  std::int64_t startRealtime = 0;    // nanoseconds since 1970, when the page was made
  std::uint64_t startMonotonic = 0;  // the same moment on the clock of Now()
  std::uint64_t takenMonotonic = 0;  // when this snapshot was taken
  std::uint64_t rowsInOther = 0;     // rows made for which there was no room
  std::uint64_t bytes = 0;           // of the page that are in use
  std::vector<std::unique_ptr<const Kind>> kinds;
  std::vector<RowValues> rows;

  // The rows of one kind.
  std::vector<const RowValues*> Of(std::string_view kind) const;
};

// This process's own. Threads: any.
Snapshot TakeSnapshot();

// Reads the page in a file without disturbing its writer. Nothing in it is trusted: throws std::runtime_error, whose
// text begins with the path, when it cannot be read, belongs to another user, is no page, is of another version, or is
// damaged.
Snapshot ReadPage(const std::string& path);

struct PageFile {
  std::string path;
  bool alive = false;  // some process holds it
};

// Where pages are: ZQ_STATISTICS_DIR, else $XDG_RUNTIME_DIR/price_connector, else /dev/shm/price_connector-<uid>.
// Empty when ZQ_STATISTICS_DIR is "off".
std::string PageDirectory();

// The pages of a directory, sorted by path; none when there is no such directory. Throws std::system_error.
std::vector<PageFile> ListPages(const std::string& directory);

}  // namespace zq::statistics

#pragma GCC visibility pop
