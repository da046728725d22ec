#include "options/option_text.h"

#include <numeric>
#include <utility>
#include <vector>

namespace engine {
namespace {

constexpr std::size_t kQuotedBytesMax = 64;

// Number of insertions, deletions and replacements that turn one text into the other.
std::size_t EditDistance(std::string_view from, std::string_view to) {
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
const OptionDefinition* Nearest(std::span<const OptionDefinition> options, std::string_view name) {
  if (name.size() >= LBM_OPTION_NAME_MAX) {
    return nullptr;
  }
  const OptionDefinition* best = nullptr;
  std::size_t bestDistance = std::max<std::size_t>(2, name.size() / 4) + 1;
  for (const auto& option : options) {
    const std::size_t distance = EditDistance(name, option.name);
    if (distance < bestDistance) {
      best = &option;
      bestDistance = distance;
    }
  }
  return best;
}

std::string Range(const OptionDefinition& option) {
  return std::to_string(option.minimum) + " to " + std::to_string(option.maximum) + (option.unit.empty() ? "" : " ") +
         std::string(option.unit);
}

}  // namespace

std::string Describe(const OptionDefinition& option) {
  return std::string(NameOf(option.scope)) + " option \"" + std::string(option.name) + "\"";
}

std::string AllowedValues(const OptionDefinition& option) {
  switch (option.type) {
    case OptionType::kText:
      return Range(option) + (option.textRule == nullptr ? "" : "; " + std::string(option.textRule->allowed));
    case OptionType::kWord:
      return Alternatives(option.words);
    case OptionType::kFlag:
      return "0 or 1";
    case OptionType::kNumber:
    case OptionType::kMilliseconds:
    case OptionType::kSize:
      return (option.hasAuto ? std::string(kAutoText) + ", or " : "") + Range(option);
    case OptionType::kResolverSourceNotification:
    case OptionType::kReceiverSourceNotification:
      break;
  }
  return {};
}

std::string_view BinaryForm(OptionType type) {
  switch (type) {
    case OptionType::kText:
    case OptionType::kWord:
      break;
    case OptionType::kFlag:
      return "int";
    case OptionType::kNumber:
      return "uint32_t";
    case OptionType::kMilliseconds:
      return "lbm_ulong_t";
    case OptionType::kSize:
      return "size_t";
    case OptionType::kResolverSourceNotification:
      return "lbm_src_notify_func_t";
    case OptionType::kReceiverSourceNotification:
      return "lbm_rcv_src_notification_func_t";
  }
  return "characters";
}

std::string Quoted(std::string_view text) {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  std::string result = "\"";
  for (const char c : text.substr(0, kQuotedBytesMax)) {
    if (c >= ' ' && c <= '~') {
      result += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      result += {'\\', 'x', kDigits[byte / 16], kDigits[byte % 16]};
    }
  }
  result += '"';
  if (text.size() > kQuotedBytesMax) {
    result += "... (" + std::to_string(text.size()) + " bytes)";
  }
  return result;
}

std::string Alternatives(std::span<const std::string_view> words) {
  std::string result;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (i > 0) {
      result += i + 1 == words.size() ? " or " : ", ";
    }
    result += words[i];
  }
  return result;
}

std::string UnknownOptionText(Scope scope, std::string_view name) {
  std::string text = "there is no " + std::string(NameOf(scope)) + " option " + Quoted(name);
  for (const auto& option : kOptionTable) {
    if (option.name == name) {
      return text + "; it is a " + std::string(NameOf(option.scope)) + " option";
    }
  }
  const auto options = OptionsOf(scope);
  if (const auto* option = Nearest(options, name)) {
    return text + "; did you mean \"" + std::string(option->name) + "\"?";
  }
  std::vector<std::string_view> names;
  for (const auto& option : options) {
    names.push_back(option.name);
  }
  return text + "; known: " + Alternatives(names);
}

}  // namespace engine
