// What price_stat watch shows: a line for each context, receiver, source or peer.
#pragma once

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "processes.h"

namespace price_stat {

enum class Measure : std::uint8_t {
  kTotal,   // of a counter or gauge
  kHarm,    // a total of what should not happen: something is wrong when it grows
  kRate,    // a counter's growth in a second
  kShare,   // the part of the time that a counter of nanoseconds grew by
  kRecent,  // a recent maximum, in nanoseconds
  kP99,     // of a histogram of nanoseconds, over its last 10 s
};

// A column of numbers.
struct Metric {
  const char* heading;
  const char* kind;  // of the rows that are added up
  const char* field;
  Measure measure;
  unsigned width;

  constexpr bool Hurts() const noexcept { return measure == Measure::kHarm; }
};

// What there are lines for. Columns that matter most come first: they are what a narrow terminal shows.
struct View {
  char key;
  const char* title;
  const char* nameLabel;  // says which one a line is about, beside its context
  bool byContext;         // a line for each context; else for each row of the metrics' kind
  std::span<const Metric> metrics;
};

std::span<const View> Views();

struct Cell {
  std::optional<double> value;  // nothing: not known
  bool grows = false;           // since the look before

  std::string Text(Measure measure) const;
};

struct Line {
  const Process* process = nullptr;
  std::string name;
  std::string context;
  std::string handle;
  State state = State::kRunning;
  std::uint64_t hangNanoseconds = 0;
  std::vector<Cell> cells;  // as many as the view has metrics

  std::string ShortState() const;
};

enum class Order : std::uint8_t { kHurts, kRate, kName };

// The lines of a view, of all processes in now. before: the look before it, in which no process need be. Lines point
// into now.
std::vector<Line> LinesOf(const View& view, Order order, const std::vector<Process>& before,
                          const std::vector<Process>& now);

nlohmann::ordered_json LinesJson(const View& view, const std::vector<Line>& lines);

}  // namespace price_stat
