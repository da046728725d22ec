#include "options/option_text.h"

#include <numeric>
#include <utility>
#include <vector>

namespace engine {
namespace {

constexpr std::size_t quotedBytesMax = 64;

// Number of insertions, deletions and replacements that turn one text into the other.
std::size_t editDistance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

// The known name that the unknown one most likely stands for, or null.
const OptionDefinition* nearest(std::span<const OptionDefinition> options, std::string_view name) {
  if (name.size() >= LBM_OPTION_NAME_MAX) return nullptr;
  const OptionDefinition* best = nullptr;
  std::size_t bestDistance = std::max<std::size_t>(2, name.size() / 4) + 1;
  for (const auto& option : options) {
    const std::size_t distance = editDistance(name, option.name);
    if (distance < bestDistance) {
      best = &option;
      bestDistance = distance;
    }
  }
  return best;
}

std::string range(const OptionDefinition& option) {
  return std::to_string(option.minimum) + " to " + std::to_string(option.maximum) + (option.unit.empty() ? "" : " ") +
         std::string(option.unit);
}

}  // namespace

std::string describe(const OptionDefinition& option) {
  return std::string(nameOf(option.scope)) + " option \"" + std::string(option.name) + "\"";
}

std::string allowedValues(const OptionDefinition& option) {
  switch (option.type) {
    case OptionType::text:
      return range(option) + (option.textRule == nullptr ? "" : "; " + std::string(option.textRule->allowed));
    case OptionType::word:
      return alternatives(option.words);
    case OptionType::flag:
      return "0 or 1";
    case OptionType::number:
    case OptionType::milliseconds:
    case OptionType::size:
      return range(option);
    case OptionType::resolverSourceNotification:
    case OptionType::receiverSourceNotification:
      break;
  }
  return {};
}

std::string_view binaryForm(OptionType type) {
  switch (type) {
    case OptionType::text:
    case OptionType::word:
      break;
    case OptionType::flag:
      return "int";
    case OptionType::number:
      return "uint32_t";
    case OptionType::milliseconds:
      return "lbm_ulong_t";
    case OptionType::size:
      return "size_t";
    case OptionType::resolverSourceNotification:
      return "lbm_src_notify_func_t";
    case OptionType::receiverSourceNotification:
      return "lbm_rcv_src_notification_func_t";
  }
  return "characters";
}

std::string quoted(std::string_view text) {
  static constexpr std::string_view digits = "0123456789abcdef";
  std::string result = "\"";
  for (const char c : text.substr(0, quotedBytesMax)) {
    if (c >= ' ' && c <= '~') {
      result += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      result += {'\\', 'x', digits[byte / 16], digits[byte % 16]};
    }
  }
  result += '"';
  if (text.size() > quotedBytesMax) result += "... (" + std::to_string(text.size()) + " bytes)";
  return result;
}

std::string alternatives(std::span<const std::string_view> words) {
  std::string result;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (i > 0) result += i + 1 == words.size() ? " or " : ", ";
    result += words[i];
  }
  return result;
}

std::string unknownOptionText(Scope scope, std::string_view name) {
  std::string text = "there is no " + std::string(nameOf(scope)) + " option " + quoted(name);
  for (const auto& option : optionTable) {
    if (option.name == name) return text + "; it is a " + std::string(nameOf(option.scope)) + " option";
  }
  const auto options = optionsOf(scope);
  if (const auto* option = nearest(options, name)) {
    return text + "; did you mean \"" + std::string(option->name) + "\"?";
  }
  std::vector<std::string_view> names;
  for (const auto& option : options) names.push_back(option.name);
  return text + "; known: " + alternatives(names);
}

}  // namespace engine
