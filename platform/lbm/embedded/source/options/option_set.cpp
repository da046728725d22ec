#include "options/option_set.h"

#include <charconv>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "options/option_text.h"
#include "options/process_defaults.h"
#include "system/error.h"

namespace engine {
namespace {

const OptionDefinition& find(Scope scope, std::string_view name) {
  const auto rows = optionsOf(scope);
  const auto place = placeOf(scope, name);
  if (place == rows.size()) throw Error(LBM_EINVAL, unknownOptionText(scope, name));
  return rows[place];
}

const OptionDefinition& findSettable(Scope scope, std::string_view name) {
  const auto& option = find(scope, name);
  if (option.change == Change::never) throw Error(LBM_EINVAL, describe(option) + " is read-only");
  return option;
}

[[noreturn]] void throwNotAcceptable(const OptionDefinition& option, std::string_view value) {
  throw Error(LBM_EINVAL,
              describe(option) + ": " + quoted(value) + " is not acceptable; allowed: " + allowedValues(option));
}

[[noreturn]] void throwNoTextForm(const OptionDefinition& option) {
  throw Error(LBM_EINVAL,
              describe(option) + " has no text form; its value is a " + std::string(binaryForm(option.type)));
}

std::uint64_t parseNumber(const OptionDefinition& option, std::string_view text, std::uint64_t minimum,
                          std::uint64_t maximum) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc{} || result.ptr != end || number < minimum || number > maximum) {
    throwNotAcceptable(option, text);
  }
  return number;
}

std::string parseText(const OptionDefinition& option, std::string_view text) {
  if (text.size() < option.minimum || text.size() > option.maximum || text.find('\0') != std::string_view::npos ||
      (option.textRule != nullptr && !option.textRule->accepts(text))) {
    throwNotAcceptable(option, text);
  }
  return std::string(text);
}

Word parseWord(const OptionDefinition& option, std::string_view text) {
  const auto word = std::find(option.words.begin(), option.words.end(), text);
  if (word == option.words.end()) throwNotAcceptable(option, text);
  return Word{static_cast<std::uint8_t>(word - option.words.begin())};
}

OptionValue valueFromText(const OptionDefinition& option, std::string_view text) {
  switch (option.type) {
    case OptionType::text:
      return parseText(option, text);
    case OptionType::word:
      return parseWord(option, text);
    case OptionType::flag:
      return parseNumber(option, text, 0, 1) == 1;
    case OptionType::number:
      return static_cast<std::uint32_t>(parseNumber(option, text, option.minimum, option.maximum));
    case OptionType::milliseconds:
      return std::chrono::milliseconds(parseNumber(option, text, option.minimum, option.maximum));
    case OptionType::size:
      return std::size_t{parseNumber(option, text, option.minimum, option.maximum)};
    case OptionType::resolverSourceNotification:
    case OptionType::receiverSourceNotification:
      break;
  }
  throwNoTextForm(option);
}

template <class T>
T readAs(const OptionDefinition& option, const void* value, std::size_t size) {
  if (size != sizeof(T)) {
    throw Error(LBM_EINVAL, describe(option) + " takes " + std::to_string(sizeof(T)) + " bytes (" +
                                std::string(binaryForm(option.type)) + "), not " + std::to_string(size));
  }
  T result;
  std::memcpy(&result, value, sizeof(T));
  return result;
}

// Numbers take the way of their text, so that they meet the same checks.
OptionValue valueFromBinary(const OptionDefinition& option, const void* value, std::size_t size) {
  switch (option.type) {
    case OptionType::text:
    case OptionType::word:
      return valueFromText(option, {static_cast<const char*>(value), size});
    case OptionType::flag:
      return valueFromText(option, std::to_string(readAs<int>(option, value, size)));
    case OptionType::number:
      return valueFromText(option, std::to_string(readAs<std::uint32_t>(option, value, size)));
    case OptionType::milliseconds:
      return valueFromText(option, std::to_string(readAs<lbm_ulong_t>(option, value, size)));
    case OptionType::size:
      return valueFromText(option, std::to_string(readAs<std::size_t>(option, value, size)));
    case OptionType::resolverSourceNotification:
      return readAs<lbm_src_notify_func_t>(option, value, size);
    case OptionType::receiverSourceNotification:
      return readAs<lbm_rcv_src_notification_func_t>(option, value, size);
  }
  throw std::logic_error("an option of unknown type");
}

OptionValue builtInValue(const OptionDefinition& option) {
  if (option.change == Change::never) return std::monostate{};
  if (option.type == OptionType::resolverSourceNotification) return lbm_src_notify_func_t{};
  if (option.type == OptionType::receiverSourceNotification) return lbm_rcv_src_notification_func_t{};
  return valueFromText(option, option.defaultText);
}

struct ToText {
  const OptionDefinition& option;

  std::string operator()(const std::string& text) const { return text; }
  std::string operator()(Word word) const { return std::string(option.words[word.place]); }
  std::string operator()(bool flag) const { return flag ? "1" : "0"; }
  std::string operator()(std::uint32_t number) const { return std::to_string(number); }
  std::string operator()(std::chrono::milliseconds time) const { return std::to_string(time.count()); }
  std::string operator()(std::size_t size) const { return std::to_string(size); }
  template <class Callbacks>
  std::string operator()(const Callbacks&) const {
    throwNoTextForm(option);
  }
};

void checkRoom(const OptionDefinition& option, std::size_t needed, std::size_t room) {
  if (needed <= room) return;
  throw Error(LBM_EINVAL, describe(option) + " needs a buffer of " + std::to_string(needed) + " bytes; this one has " +
                              std::to_string(room));
}

void copyOut(const OptionDefinition& option, std::string_view text, void* buffer, std::size_t& size) {
  checkRoom(option, text.size(), size);
  auto* const end = std::copy(text.begin(), text.end(), static_cast<char*>(buffer));
  if (text.size() < size) *end = '\0';
  size = text.size();
}

struct ToBinary {
  const OptionDefinition& option;
  void* buffer;
  std::size_t& size;

  void operator()(std::monostate) const {}
  void operator()(const std::string& text) const { copyOut(option, text, buffer, size); }
  void operator()(Word word) const { copyOut(option, option.words[word.place], buffer, size); }
  void operator()(bool flag) const { (*this)(flag ? 1 : 0); }
  void operator()(std::chrono::milliseconds time) const { (*this)(static_cast<lbm_ulong_t>(time.count())); }
  template <class T>
  void operator()(const T& value) const {
    checkRoom(option, sizeof(T), size);
    std::memcpy(buffer, &value, sizeof(T));
    size = sizeof(T);
  }
};

struct SameValue {
  template <class Left, class Right>
  bool operator()(const Left&, const Right&) const {
    return false;
  }
  template <class T>
  bool operator()(const T& left, const T& right) const {
    return left == right;
  }
  bool operator()(const lbm_src_notify_func_t& left, const lbm_src_notify_func_t& right) const {
    return left.notifyfunc == right.notifyfunc && left.clientd == right.clientd;
  }
  bool operator()(const lbm_rcv_src_notification_func_t& left, const lbm_rcv_src_notification_func_t& right) const {
    return left.create_func == right.create_func && left.delete_func == right.delete_func &&
           left.clientd == right.clientd;
  }
};

}  // namespace

OptionSet::OptionSet(Scope scope) : OptionSet(ProcessDefaults::instance().options(scope)) {}

OptionSet::OptionSet(Scope scope, BuiltIn) : m_scope(scope) {
  for (const auto& option : optionsOf(scope)) m_values.push_back(builtInValue(option));
}

OptionSet OptionSet::builtIn(Scope scope) { return {scope, BuiltIn{}}; }

void OptionSet::setText(std::string_view name, std::string_view value) {
  const auto& option = findSettable(m_scope, name);
  m_values[place(option)] = valueFromText(option, value);
}

std::string OptionSet::getText(std::string_view name) const {
  const auto& option = find(m_scope, name);
  return std::visit(ToText{option}, presentValue(option));
}

void OptionSet::setBinary(std::string_view name, const void* value, std::size_t size) {
  const auto& option = findSettable(m_scope, name);
  m_values[place(option)] = valueFromBinary(option, value, size);
}

void OptionSet::getText(std::string_view name, char* buffer, std::size_t& size) const {
  copyOut(find(m_scope, name), getText(name), buffer, size);
}

void OptionSet::getBinary(std::string_view name, void* buffer, std::size_t& size) const {
  const auto& option = find(m_scope, name);
  std::visit(ToBinary{option, buffer, size}, presentValue(option));
}

std::vector<std::pair<std::string_view, std::string>> OptionSet::texts() const {
  std::vector<std::pair<std::string_view, std::string>> result;
  for (const auto& option : optionsOf(m_scope)) {
    const auto& value = m_values[place(option)];
    if (!hasTextForm(option.type) || std::holds_alternative<std::monostate>(value)) continue;
    result.emplace_back(option.name, std::visit(ToText{option}, value));
  }
  return result;
}

bool operator==(const OptionSet& left, const OptionSet& right) noexcept {
  return left.m_scope == right.m_scope &&
         std::equal(left.m_values.begin(), left.m_values.end(), right.m_values.begin(), right.m_values.end(),
                    [](const OptionValue& a, const OptionValue& b) { return std::visit(SameValue{}, a, b); });
}

const OptionValue& OptionSet::valueOf(Scope scope, std::size_t place) const {
  if (scope != m_scope) throw std::logic_error("an option of another scope");
  return m_values[place];
}

const OptionValue& OptionSet::presentValue(const OptionDefinition& option) const {
  const auto& value = m_values[place(option)];
  if (std::holds_alternative<std::monostate>(value)) {
    throw Error(LBM_EOP, describe(option) + " has a value on a live " + std::string(nameOf(option.scope)) + " only");
  }
  return value;
}

void OptionSet::provideValue(Scope scope, std::size_t place, OptionValue value) {
  if (scope != m_scope) throw std::logic_error("an option of another scope");
  if (optionsOf(scope)[place].change != Change::never) throw std::logic_error("an option that is not the engine's own");
  m_values[place] = std::move(value);
}

std::size_t OptionSet::place(const OptionDefinition& option) const noexcept {
  return static_cast<std::size_t>(&option - optionsOf(m_scope).data());
}

}  // namespace engine
