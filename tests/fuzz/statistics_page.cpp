// A page of statistics that is damaged, or was made by somebody else: it is read or refused, whatever is in it.
#include <unistd.h>

#include "harness/input.h"
#include "harness/input_file.h"
#include "harness/oracle.h"
#include "page.h"
#include "zq/statistics/snapshot.h"

namespace fuzz {
namespace {

namespace statistics = zq::statistics;
using statistics::FieldType;

const statistics::Kind kThing{.name = "thing",
                              .help = "A thing.",
                              .labels = {"name"},
                              .fields = {{"messages", FieldType::kCounter, "", ""},
                                         {"peak", FieldType::kRecentMaximum, "", ""},
                                         {"latency", FieldType::kHistogram, "nanoseconds", ""}}};

// The bytes of an honest page.
std::string MakePage() {
  const test_support::TemporaryDirectory directory;
  statistics::Page page({.directory = directory.Path(), .bytesMax = 1U << 20U, .rowsMax = 8});
  const statistics::Row first(page, kThing, {"first"});
  statistics::Row second(page, kThing, {"second"});
  second.Add(0, 1);
  second.RecordInHistogram(2, 1'000, statistics::Now());
  return zq::posix::ReadFile(page.Path(), std::size_t{1} << 20U);
}

void Read(Input& input) {
  static const std::string honest = MakePage();
  static const InputFile file;
  std::string page = honest;
  for (int damages = 0; input.Left() && damages < 32; ++damages) {
    // The beginning has most of what decides; the rest is reached by eights.
    const std::size_t at = input.ConsumeBool() ? input.UpTo<std::size_t>(511) : input.UpTo(page.size() / 8) * 8;
    const auto bytes = input.Bytes(16);
    for (std::size_t i = 0; i < bytes.size() && at + i < page.size(); ++i) {
      page[at + i] = static_cast<char>(bytes[i]);
    }
    if (input.UpTo<std::uint8_t>(31) == 0) {
      page.resize(input.UpTo(page.size()));
    }
  }
  const std::string& path = file.With(page);
  try {
    const statistics::Snapshot snapshot = statistics::ReadPage(path);
    for (const statistics::RowValues& row : snapshot.rows) {
      Require(row.labels.size() == row.kind->labels.size() && row.values.size() == row.kind->fields.size(),
              "a row is as its kind says");
      for (const statistics::Value& value : row.values) {
        if (value.all) {
          value.all->Quantile(0.5);
        }
      }
      row.Find("latency");
      row.Label("name");
    }
    snapshot.Of("thing");
  } catch (const std::runtime_error& error) {
    Require(std::string_view(error.what()).starts_with(path + ": "), "a refusal names the page");
  }
}

}  // namespace
}  // namespace fuzz

FUZZ_WITH(fuzz::Read)
