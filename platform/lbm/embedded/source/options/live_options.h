// The options of living objects: what they were created with, and the values that only a living object has.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "options/option_set.h"

namespace engine {

// Of an object that allows a few changes while it lives. As OptionSet, with these differences: an option that can only
// be set at creation is refused with LBM_EOP, and every operation may be called on any thread at any time.
class LiveOptions {
 public:
  explicit LiveOptions(OptionSet options) : m_options(std::move(options)) {}

  void SetText(std::string_view name, std::string_view value);
  void SetBinary(std::string_view name, const void* value, std::size_t size);
  void GetText(std::string_view name, char* buffer, std::size_t& size) const;
  void GetBinary(std::string_view name, void* buffer, std::size_t& size) const;
  std::vector<std::pair<std::string_view, std::string>> Texts() const;

  std::vector<ShownOption> Shown() const;

  template <class T>
  T Get(const OptionKey<T>& key) const {
    const std::lock_guard lock(m_mutex);
    return m_options.Get(key);
  }

 private:
  mutable std::mutex m_mutex;
  OptionSet m_options;  // guarded by m_mutex
};

// Of an object that allows none: every setting is refused. Threads: any number.
class FixedOptions {
 public:
  explicit FixedOptions(OptionSet options) : m_options(std::move(options)) {}

  // Throw Error: LBM_EINVAL for an option that nobody may set or that does not exist, LBM_EOP for any other.
  [[noreturn]] void SetText(std::string_view name, std::string_view value) const;
  [[noreturn]] void SetBinary(std::string_view name, const void* value, std::size_t size) const;

  void GetText(std::string_view name, char* buffer, std::size_t& size) const { m_options.GetText(name, buffer, size); }
  void GetBinary(std::string_view name, void* buffer, std::size_t& size) const {
    m_options.GetBinary(name, buffer, size);
  }

 private:
  const OptionSet m_options;
};

}  // namespace engine
