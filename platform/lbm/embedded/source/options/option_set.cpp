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

const OptionDefinition& Find(Scope scope, std::string_view name) {
  const auto rows = OptionsOf(scope);
  const auto place = PlaceOf(scope, name);
  if (place == rows.size()) {
    throw Error(LBM_EINVAL, UnknownOptionText(scope, name));
  }
  return rows[place];
}

[[noreturn]] void ThrowNotAcceptable(const OptionDefinition& option, std::string_view value) {
  throw Error(LBM_EINVAL,
              Describe(option) + ": " + Quoted(value) + " is not acceptable; allowed: " + AllowedValues(option));
}

[[noreturn]] void ThrowNoTextForm(const OptionDefinition& option) {
  throw Error(LBM_EINVAL,
              Describe(option) + " has no text form; its value is a " + std::string(BinaryForm(option.type)));
}

std::uint64_t ParseNumber(const OptionDefinition& option, std::string_view text, std::uint64_t minimum,
                          std::uint64_t maximum) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc{} || result.ptr != end || number < minimum || number > maximum) {
    ThrowNotAcceptable(option, text);
  }
  return number;
}

std::string ParseText(const OptionDefinition& option, std::string_view text) {
  if (text.size() < option.minimum || text.size() > option.maximum || text.find('\0') != std::string_view::npos ||
      (option.textRule != nullptr && !option.textRule->accepts(text))) {
    ThrowNotAcceptable(option, text);
  }
  return std::string(text);
}

Word ParseWord(const OptionDefinition& option, std::string_view text) {
  const auto word = std::find(option.words.begin(), option.words.end(), text);
  if (word == option.words.end()) {
    ThrowNotAcceptable(option, text);
  }
  return Word{static_cast<std::uint8_t>(word - option.words.begin())};
}

std::uint32_t ParseNumberOrAuto(const OptionDefinition& option, std::string_view text) {
  if (option.hasAuto && text == kAutoText) {
    return kAuto;
  }
  return static_cast<std::uint32_t>(ParseNumber(option, text, option.minimum, option.maximum));
}

std::string NumberText(const OptionDefinition& option, std::uint32_t number) {
  return option.hasAuto && number == kAuto ? std::string(kAutoText) : std::to_string(number);
}

OptionValue ValueFromText(const OptionDefinition& option, std::string_view text) {
  switch (option.type) {
    case OptionType::kText:
      return Text(ParseText(option, text));
    case OptionType::kWord:
      return ParseWord(option, text);
    case OptionType::kFlag:
      return ParseNumber(option, text, 0, 1) == 1;
    case OptionType::kNumber:
      return ParseNumberOrAuto(option, text);
    case OptionType::kMilliseconds:
      return std::chrono::milliseconds(ParseNumber(option, text, option.minimum, option.maximum));
    case OptionType::kSize:
      return std::size_t{ParseNumber(option, text, option.minimum, option.maximum)};
    case OptionType::kResolverSourceNotification:
    case OptionType::kReceiverSourceNotification:
      break;
  }
  ThrowNoTextForm(option);
}

template <class T>
T ReadAs(const OptionDefinition& option, const void* value, std::size_t size) {
  if (size != sizeof(T)) {
    throw Error(LBM_EINVAL, Describe(option) + " takes " + std::to_string(sizeof(T)) + " bytes (" +
                                std::string(BinaryForm(option.type)) + "), not " + std::to_string(size));
  }
  T result;
  std::memcpy(&result, value, sizeof(T));
  return result;
}

// Numbers take the way of their text, so that they meet the same checks.
OptionValue ValueFromBinary(const OptionDefinition& option, const void* value, std::size_t size) {
  switch (option.type) {
    case OptionType::kText:
    case OptionType::kWord:
      return ValueFromText(option, {static_cast<const char*>(value), size});
    case OptionType::kFlag:
      return ValueFromText(option, std::to_string(ReadAs<int>(option, value, size)));
    case OptionType::kNumber:
      return ValueFromText(option, NumberText(option, ReadAs<std::uint32_t>(option, value, size)));
    case OptionType::kMilliseconds:
      return ValueFromText(option, std::to_string(ReadAs<lbm_ulong_t>(option, value, size)));
    case OptionType::kSize:
      return ValueFromText(option, std::to_string(ReadAs<std::size_t>(option, value, size)));
    case OptionType::kResolverSourceNotification:
      return ReadAs<lbm_src_notify_func_t>(option, value, size);
    case OptionType::kReceiverSourceNotification:
      return ReadAs<lbm_rcv_src_notification_func_t>(option, value, size);
  }
  throw std::logic_error("an option of unknown type");
}

OptionValue BuiltInValue(const OptionDefinition& option) {
  if (option.change == Change::kNever) {
    return std::monostate{};
  }
  if (option.type == OptionType::kResolverSourceNotification) {
    return lbm_src_notify_func_t{};
  }
  if (option.type == OptionType::kReceiverSourceNotification) {
    return lbm_rcv_src_notification_func_t{};
  }
  return ValueFromText(option, option.defaultText);
}

struct ToText {
  const OptionDefinition& option;

  std::string operator()(const Text& text) const { return text.Get(); }
  std::string operator()(Word word) const { return std::string(option.words[word.place]); }
  std::string operator()(bool flag) const { return flag ? "1" : "0"; }
  std::string operator()(std::uint32_t number) const { return NumberText(option, number); }
  std::string operator()(std::chrono::milliseconds time) const { return std::to_string(time.count()); }
  std::string operator()(std::size_t size) const { return std::to_string(size); }
  template <class Callbacks>
  std::string operator()(const Callbacks&) const {
    ThrowNoTextForm(option);
  }
};

void CheckRoom(const OptionDefinition& option, std::size_t needed, std::size_t room) {
  if (needed <= room) {
    return;
  }
  throw Error(LBM_EINVAL, Describe(option) + " needs a buffer of " + std::to_string(needed) + " bytes; this one has " +
                              std::to_string(room));
}

void CopyOut(const OptionDefinition& option, std::string_view text, void* buffer, std::size_t& size) {
  CheckRoom(option, text.size(), size);
  auto* const end = std::copy(text.begin(), text.end(), static_cast<char*>(buffer));
  if (text.size() < size) {
    *end = '\0';
  }
  size = text.size();
}

struct ToBinary {
  const OptionDefinition& option;
  void* buffer;
  std::size_t& size;

  void operator()(std::monostate) const {}
  void operator()(const Text& text) const { CopyOut(option, text.Get(), buffer, size); }
  void operator()(Word word) const { CopyOut(option, option.words[word.place], buffer, size); }
  void operator()(bool flag) const { (*this)(flag ? 1 : 0); }
  void operator()(std::chrono::milliseconds time) const { (*this)(static_cast<lbm_ulong_t>(time.count())); }
  template <class T>
  void operator()(const T& value) const {
    CheckRoom(option, sizeof(T), size);
    std::memcpy(buffer, &value, sizeof(T));
    size = sizeof(T);
  }
};

// The servers of a list of URLs; what may be a user or a password is starred out.
std::string WithoutUsers(std::string_view urls) {
  constexpr std::string_view kSlashes = "//";
  std::string shown;
  for (std::string_view rest = urls; !rest.empty();) {
    const std::size_t slashes = rest.find(kSlashes);
    const std::string_view part = rest.substr(0, slashes);
    const std::size_t at = part.rfind('@');
    shown += at == std::string_view::npos ? std::string(part) : "***" + std::string(part.substr(at));
    rest.remove_prefix(part.size());
    if (!rest.empty()) {
      shown += kSlashes;
      rest.remove_prefix(kSlashes.size());
    }
  }
  return shown;
}

struct ToShown {
  const OptionDefinition& option;

  std::string operator()(const lbm_src_notify_func_t& functions) const { return functions.notifyfunc ? "set" : "none"; }
  std::string operator()(const lbm_rcv_src_notification_func_t& functions) const {
    return functions.create_func ? "set" : "none";
  }
  std::string operator()(const Text& text) const { return option.holdsUrls ? WithoutUsers(text.Get()) : text.Get(); }
  template <class T>
  std::string operator()(const T& value) const {
    return ToText{option}(value);
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

namespace origin {

const Text& Default() {
  static const Text text("default");
  return text;
}

const Text& Attribute() {
  static const Text text("attribute");
  return text;
}

Text Environment(std::string_view variable) { return Text("environment " + std::string(variable)); }

Text File(const std::string& path, std::size_t line) { return Text("file " + path + ":" + std::to_string(line)); }

}  // namespace origin

const OptionDefinition& FindSettable(Scope scope, std::string_view name) {
  const auto& option = Find(scope, name);
  if (option.change == Change::kNever) {
    throw Error(LBM_EINVAL, Describe(option) + " is read-only");
  }
  return option;
}

OptionSet::OptionSet(Scope scope) : OptionSet(ProcessDefaults::Instance().Options(scope)) {}

OptionSet::OptionSet(Scope scope, BuiltIn) : m_scope(scope) {
  for (const auto& option : OptionsOf(scope)) {
    m_settings.push_back({BuiltInValue(option), origin::Default()});
  }
}

OptionSet OptionSet::BuiltInDefaults(Scope scope) { return {scope, BuiltIn{}}; }

void OptionSet::SetText(std::string_view name, std::string_view value, const Text& from) {
  const auto& option = FindSettable(m_scope, name);
  m_settings[Place(option)] = {ValueFromText(option, value), from};
}

std::string OptionSet::GetText(std::string_view name) const {
  const auto& option = Find(m_scope, name);
  return std::visit(ToText{option}, PresentValue(option));
}

void OptionSet::SetBinary(std::string_view name, const void* value, std::size_t size) {
  const auto& option = FindSettable(m_scope, name);
  m_settings[Place(option)] = {ValueFromBinary(option, value, size), origin::Attribute()};
}

void OptionSet::GetText(std::string_view name, char* buffer, std::size_t& size) const {
  CopyOut(Find(m_scope, name), GetText(name), buffer, size);
}

void OptionSet::GetBinary(std::string_view name, void* buffer, std::size_t& size) const {
  const auto& option = Find(m_scope, name);
  std::visit(ToBinary{option, buffer, size}, PresentValue(option));
}

std::vector<std::pair<std::string_view, std::string>> OptionSet::Texts() const {
  std::vector<std::pair<std::string_view, std::string>> result;
  for (const auto& option : OptionsOf(m_scope)) {
    const auto& value = m_settings[Place(option)].value;
    if (!HasTextForm(option.type) || std::holds_alternative<std::monostate>(value)) {
      continue;
    }
    result.emplace_back(option.name, std::visit(ToText{option}, value));
  }
  return result;
}

std::vector<ShownOption> OptionSet::Shown() const {
  std::vector<ShownOption> result;
  for (const auto& option : OptionsOf(m_scope)) {
    const Setting& setting = m_settings[Place(option)];
    if (!std::holds_alternative<std::monostate>(setting.value)) {
      result.push_back({option.name, std::visit(ToShown{option}, setting.value), setting.from.Get()});
    }
  }
  return result;
}

bool operator==(const OptionSet& left, const OptionSet& right) noexcept {
  return left.m_scope == right.m_scope &&
         std::equal(left.m_settings.begin(), left.m_settings.end(), right.m_settings.begin(), right.m_settings.end(),
                    [](const auto& a, const auto& b) { return std::visit(SameValue{}, a.value, b.value); });
}

const OptionValue& OptionSet::ValueOf(Scope scope, std::size_t place) const {
  if (scope != m_scope) {
    throw std::logic_error("an option of another scope");
  }
  return m_settings[place].value;
}

const OptionValue& OptionSet::PresentValue(const OptionDefinition& option) const {
  const auto& value = m_settings[Place(option)].value;
  if (std::holds_alternative<std::monostate>(value)) {
    throw Error(LBM_EOP, Describe(option) + " has a value on a live " + std::string(NameOf(option.scope)) + " only");
  }
  return value;
}

void OptionSet::ProvideValue(Scope scope, std::size_t place, Setting setting) {
  if (scope != m_scope) {
    throw std::logic_error("an option of another scope");
  }
  if (OptionsOf(scope)[place].change != Change::kNever) {
    throw std::logic_error("an option that is not the engine's own");
  }
  m_settings[place] = std::move(setting);
}

std::size_t OptionSet::Place(const OptionDefinition& option) const noexcept {
  return static_cast<std::size_t>(&option - OptionsOf(m_scope).data());
}

}  // namespace engine
