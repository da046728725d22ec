#include "options/reference_page.h"

#include <array>
#include <string_view>

#include "options/option_text.h"
#include "options/process_defaults.h"

namespace engine {
namespace {

struct Section {
  Scope scope;
  std::string_view setThrough;  // function families
};
constexpr std::array kSections{
    Section{Scope::kContext, "`lbm_context_attr_...`, and `lbm_context_...` on a live context"},
    Section{Scope::kSource, "`lbm_src_topic_attr_...`, and `lbm_src_...` on a live source"},
    Section{Scope::kReceiver, "`lbm_rcv_topic_attr_...`, and `lbm_rcv_...` on a live receiver"},
    Section{Scope::kEventQueue, "`lbm_event_queue_attr_...`"}};
static_assert(kSections.size() == kScopeNames.size());

std::string ChangeText(Change change) {
  switch (change) {
    case Change::kAtCreation:
      break;
    case Change::kAnytime:
      return "any time";
    case Change::kNever:
      return "read-only";
  }
  return "at creation";
}

std::string DefaultText(const OptionDefinition& option) {
  if (option.change == Change::kNever) {
    return "";
  }
  if (!HasTextForm(option.type)) {
    return "none";
  }
  if (option.defaultText.empty()) {
    return "empty";
  }
  return std::string("`").append(option.defaultText).append("`");
}

std::string Row(const OptionDefinition& option) {
  std::string text = "| `" + std::string(option.name) + "` | ";
  text += std::string(BinaryForm(option.type)) + " | ";
  text += DefaultText(option) + " | ";
  text += (option.change == Change::kNever ? "" : AllowedValues(option)) + " | ";
  text += ChangeText(option.change) + " | ";
  text += std::string(option.documentation) + " |\n";
  return text;
}

std::string Introduction() {
  return "# Options of the embedded engine\n"
         "\n"
         "Every option can be set on an attribute object before its object is created, as text (`..._str_setopt`) or "
         "in\n"
         "the binary form that the tables name (`..._setopt`, with the exact size). Options whose binary form is a\n"
         "record of functions have no text form. An unknown option or a bad value is an error whose text names the\n"
         "option and what is allowed.\n"
         "\n"
         "Defaults for the whole process come from a text file, read by `lbm_config` or, at the first use of the\n"
         "library, from the file that the environment variable `" +
         std::string(kConfigFileVariable) +
         "` names: one \"scope option value\" a line.\n"
         "The value goes to the end of the line; `#` at the start of a line or after a blank starts a comment; when "
         "an\n"
         "option stands there twice, the later line holds. A file with a wrong line changes nothing, and the error\n"
         "names file and line. A file has at most " +
         std::to_string(kConfigFileBytesMax) +
         " bytes.\n"
         "\n"
         "```\n"
         "# all contexts of this process\n"
         "context   operational_mode  sequential\n"
         "source    transport_pacing  receiver\n"
         "```\n";
}

}  // namespace

std::string ReferencePage() {
  std::string page = Introduction();
  for (const auto& section : kSections) {
    page += "\n## Scope `" + std::string(NameOf(section.scope)) + "`\n\nSet and read through " +
            std::string(section.setThrough) +
            ".\n\n"
            "| Option | Binary form | Default | Allowed | Can be set | Meaning |\n"
            "|---|---|---|---|---|---|\n";
    for (const auto& option : OptionsOf(section.scope)) {
      page += Row(option);
    }
  }
  return page +
         "\nThis page is made from the table in `platform/lbm/embedded/source/options/option_table.h` by the build\n"
         "target `engine_options_page`.\n";
}

}  // namespace engine
