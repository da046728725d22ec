// The engine's configuration file: a file that is refused changes nothing, and one that is taken can be written down
// and read again.
#include "harness/input.h"
#include "harness/input_file.h"
#include "harness/oracle.h"
#include "options/process_defaults.h"
#include "system/error.h"

namespace fuzz {
namespace {

using engine::OptionSet;

std::vector<OptionSet> OptionsOf(engine::ProcessDefaults& defaults) {
  std::vector<OptionSet> all;
  for (std::size_t scope = 0; scope < engine::kScopeNames.size(); ++scope) {
    all.push_back(defaults.Options(static_cast<engine::Scope>(scope)));
  }
  return all;
}

void Load(Input& input) {
  static const InputFile file;
  const std::string text = input.ConsumeRemainingBytesAsString();
  engine::ProcessDefaults defaults{std::string()};
  const std::vector<OptionSet> before = OptionsOf(defaults);
  try {
    defaults.Load(file.With(text));
  } catch (const engine::Error& error) {
    Require(std::string_view(error.what()).find("input:") != std::string_view::npos, "a refusal names file and line");
    Require(OptionsOf(defaults) == before, "a file that is refused changes nothing");
    return;
  }
  for (const OptionSet& options : OptionsOf(defaults)) {
    OptionSet copy = OptionSet::BuiltInDefaults(options.GetScope());
    for (const auto& [name, value] : options.Texts()) {
      try {
        copy.SetText(name, value);
      } catch (const engine::Error&) {  // read-only ones
      }
    }
    Require(copy == options, "options survive their text form");
  }
}

}  // namespace
}  // namespace fuzz

FUZZ_WITH(fuzz::Load)
