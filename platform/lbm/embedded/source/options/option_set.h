// The values of one scope's options.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "options/option_keys.h"

namespace engine {

struct Word {
  std::uint8_t place = 0;  // in the option's words
  friend bool operator==(Word, Word) = default;
};

// A text that its copies share, so that copying a value cannot fail. (The variant of GCC 12 does not survive that the
// copy of what it holds throws.)
class Text {
 public:
  explicit Text(std::string text) : m_text(std::make_shared<const std::string>(std::move(text))) {}

  const std::string& Get() const noexcept { return *m_text; }
  friend bool operator==(const Text& left, const Text& right) noexcept { return left.Get() == right.Get(); }

 private:
  std::shared_ptr<const std::string> m_text;
};

// An option's value. Nothing stands for an option that only a live object has a value for.
using OptionValue = std::variant<std::monostate, Text, Word, bool, std::uint32_t, std::chrono::milliseconds,
                                 std::size_t, lbm_src_notify_func_t, lbm_rcv_src_notification_func_t>;

// Where a value comes from, for operators: "default", "attribute" (the program set it), "environment NAME" or
// "file PATH:LINE".
namespace origin {

const Text& Default();
const Text& Attribute();
Text Environment(std::string_view variable);
Text File(const std::string& path, std::size_t line);

}  // namespace origin

// An option as operators see it: a record of functions is "set" or "none", and no user or password is in a URL.
struct ShownOption {
  std::string_view name;
  std::string value;
  std::string origin;
};

// The row of an option that may be set. Throws Error when the scope has no such option, or a read-only one.
const OptionDefinition& FindSettable(Scope scope, std::string_view name);

// Threads: one at a time, or any number that only read. Failures are Errors whose text names scope, option, the value
// and what is allowed; they change nothing.
class OptionSet {
 public:
  // With the process's defaults. Fails when the configuration file named by the environment is wrong.
  explicit OptionSet(Scope scope);

  // With the defaults of the table.
  static OptionSet BuiltInDefaults(Scope scope);

  Scope GetScope() const noexcept { return m_scope; }

  void SetText(std::string_view name, std::string_view value, const Text& from = origin::Attribute());
  std::string GetText(std::string_view name) const;

  // Binary forms: see OptionType. size is that of the value, exactly.
  void SetBinary(std::string_view name, const void* value, std::size_t size);

  // Forms of GetText and its binary twin for a caller's buffer. size is the room on entry and the used length on
  // return. A text is followed by a zero where there is room for it.
  void GetText(std::string_view name, char* buffer, std::size_t& size) const;
  void GetBinary(std::string_view name, void* buffer, std::size_t& size) const;

  // All options that have a value and a text form, in the order of their names.
  std::vector<std::pair<std::string_view, std::string>> Texts() const;

  // All options that have a value, in the order of their names.
  std::vector<ShownOption> Shown() const;

  // Typed reading: a reference for texts, else a copy. For options that only live objects have: after Provide only.
  template <class T>
  decltype(auto) Get(const OptionKey<T>& key) const {
    const OptionValue& value = ValueOf(key.GetScope(), key.Place());
    if constexpr (std::is_same_v<T, std::string>) {
      return std::get<Text>(value).Get();
    } else if constexpr (std::is_enum_v<T>) {
      return static_cast<T>(std::get<Word>(value).place);
    } else {
      return T(std::get<T>(value));
    }
  }

  // Gives the value of an option that nobody else may change (Change::never).
  template <class T>
  void Provide(const OptionKey<T>& key, T value, const Text& from = origin::Default()) {
    if constexpr (std::is_same_v<T, std::string>) {
      ProvideValue(key.GetScope(), key.Place(), {Text(std::move(value)), from});
    } else {
      ProvideValue(key.GetScope(), key.Place(), {OptionValue(std::in_place_type<T>, std::move(value)), from});
    }
  }

  // Whether the values are the same, wherever they come from.
  friend bool operator==(const OptionSet& left, const OptionSet& right) noexcept;

 private:
  struct BuiltIn {};
  struct Setting {
    OptionValue value;
    Text from;
  };
  OptionSet(Scope scope, BuiltIn);

  const OptionValue& ValueOf(Scope scope, std::size_t place) const;
  const OptionValue& PresentValue(const OptionDefinition& option) const;
  void ProvideValue(Scope scope, std::size_t place, Setting setting);
  std::size_t Place(const OptionDefinition& option) const noexcept;

  Scope m_scope;
  std::vector<Setting> m_settings;  // in the order of OptionsOf(m_scope)
};

}  // namespace engine
