#include "options/live_options.h"

#include "options/option_text.h"
#include "system/error.h"

namespace engine {
namespace {

[[noreturn]] void RefuseChange(const OptionDefinition& option) {
  throw Error(LBM_EOP, Describe(option) + " can only be set before the object is created");
}

[[noreturn]] void RefuseEveryChange(Scope scope, std::string_view name) { RefuseChange(FindSettable(scope, name)); }

void CheckChangeable(Scope scope, std::string_view name) {
  if (const OptionDefinition& option = FindSettable(scope, name); option.change == Change::kAtCreation) {
    RefuseChange(option);
  }
}

}  // namespace

void LiveOptions::SetText(std::string_view name, std::string_view value) {
  const std::lock_guard lock(m_mutex);
  CheckChangeable(m_options.GetScope(), name);
  m_options.SetText(name, value);
}

void LiveOptions::SetBinary(std::string_view name, const void* value, std::size_t size) {
  const std::lock_guard lock(m_mutex);
  CheckChangeable(m_options.GetScope(), name);
  m_options.SetBinary(name, value, size);
}

void LiveOptions::GetText(std::string_view name, char* buffer, std::size_t& size) const {
  const std::lock_guard lock(m_mutex);
  m_options.GetText(name, buffer, size);
}

void LiveOptions::GetBinary(std::string_view name, void* buffer, std::size_t& size) const {
  const std::lock_guard lock(m_mutex);
  m_options.GetBinary(name, buffer, size);
}

std::vector<std::pair<std::string_view, std::string>> LiveOptions::Texts() const {
  const std::lock_guard lock(m_mutex);
  return m_options.Texts();
}

std::vector<ShownOption> LiveOptions::Shown() const {
  const std::lock_guard lock(m_mutex);
  return m_options.Shown();
}

void FixedOptions::SetText(std::string_view name, std::string_view /*value*/) const {
  RefuseEveryChange(m_options.GetScope(), name);
}

void FixedOptions::SetBinary(std::string_view name, const void* /*value*/, std::size_t /*size*/) const {
  RefuseEveryChange(m_options.GetScope(), name);
}

}  // namespace engine
