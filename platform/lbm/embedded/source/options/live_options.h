// The options of a living object: what it was created with, the values that only a living object has, and the few
// changes that are possible.
#pragma once

#include <mutex>

#include "options/option_set.h"

namespace engine {

// As OptionSet, with these differences: an option that can only be set at creation is refused with LBM_EOP, and every
// operation may be called on any thread at any time.
class LiveOptions {
 public:
  explicit LiveOptions(OptionSet options) : m_options(std::move(options)) {}

  void SetText(std::string_view name, std::string_view value);
  void SetBinary(std::string_view name, const void* value, std::size_t size);
  void GetText(std::string_view name, char* buffer, std::size_t& size) const;
  void GetBinary(std::string_view name, void* buffer, std::size_t& size) const;
  std::vector<std::pair<std::string_view, std::string>> Texts() const;

  template <class T>
  T Get(const OptionKey<T>& key) const {
    const std::lock_guard lock(m_mutex);
    return m_options.Get(key);
  }

  template <class T>
  void Provide(const OptionKey<T>& key, T value) {
    const std::lock_guard lock(m_mutex);
    m_options.Provide(key, std::move(value));
  }

 private:
  mutable std::mutex m_mutex;
  OptionSet m_options;  // guarded by m_mutex
};

}  // namespace engine
