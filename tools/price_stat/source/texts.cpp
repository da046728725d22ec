#include "texts.h"

#include <fmt/format.h>

#include <array>
#include <cmath>

#include "cli/format.h"
#include "cli/one_line.h"
#include "cli/tool.h"

namespace price_stat {
namespace {

constexpr const char* kNanoseconds = "nanoseconds";

}  // namespace

std::string ShortCount(double count) {
  constexpr std::array kUnits{"", "k", "M", "G", "T", "P", "E"};
  std::size_t unit = 0;
  for (; std::abs(count) >= 999.5 && unit + 1 < kUnits.size(); ++unit) {
    count /= 1000;
  }
  const bool isWhole = unit == 0 && std::abs(count - std::round(count)) < 0.005;
  const int digits = isWhole || std::abs(count) >= 99.95 ? 0 : std::abs(count) >= 9.995 ? 1 : 2;
  return fmt::format("{:.{}f}{}", count, digits, kUnits[unit]);
}

std::string NumberText(const Field& field, std::int64_t number) {
  const bool isSigned = field.type == FieldType::kGauge && number < 0;
  const auto size = isSigned ? ~static_cast<std::uint64_t>(number) + 1 : static_cast<std::uint64_t>(number);
  const auto text = field.unit == kNanoseconds ? cli::FormatLatency(size) : cli::FormatCount(size);
  return isSigned ? '-' + text : text;
}

std::string RateText(const Field& field, double rate) {
  return field.unit == kNanoseconds ? fmt::format("{:.1f}%", rate / 1e7) : ShortCount(rate) + "/s";
}

std::string ContextName(std::string_view name, std::string_view handle) {
  return cli::OneLine(name.empty() ? handle : name);
}

std::string NumberOf(const Process& process) {
  return process.snapshot ? std::to_string(process.snapshot->process) : "?";
}

std::string ProcessName(const Process& process) { return cli::OneLine(process.Program()) + ' ' + NumberOf(process); }

void ComplainOfNothing(const std::string& directory, const std::vector<Process>& processes) {
  cli::Complain("price_stat",
                processes.empty()
                    ? "no such process has a page in " + directory +
                          "\nLook at: whether the processes run, as which user, and whether ZQ_STATISTICS_DIR and "
                          "XDG_RUNTIME_DIR are the same there.\nWith ZQ_STATISTICS_DIR=off they have no pages."
                    : "nothing of that in the pages in " + directory);
}

}  // namespace price_stat
