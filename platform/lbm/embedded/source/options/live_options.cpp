#include "options/live_options.h"

#include "options/option_text.h"
#include "system/error.h"

namespace engine {
namespace {

// Unknown and read-only options are left to the set, which says more about them.
void CheckChangeable(Scope scope, std::string_view name) {
  const auto rows = OptionsOf(scope);
  const auto place = PlaceOf(scope, name);
  if (place != rows.size() && rows[place].change == Change::kAtCreation) {
    throw Error(LBM_EOP, Describe(rows[place]) + " can only be set before the object is created");
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

}  // namespace engine
