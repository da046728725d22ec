#include "options/live_options.h"

#include "options/option_text.h"
#include "system/error.h"

namespace engine {
namespace {

// Unknown and read-only options are left to the set, which says more about them.
void checkChangeable(Scope scope, std::string_view name) {
  const auto rows = optionsOf(scope);
  const auto place = placeOf(scope, name);
  if (place != rows.size() && rows[place].change == Change::atCreation) {
    throw Error(LBM_EOP, describe(rows[place]) + " can only be set before the object is created");
  }
}

}  // namespace

void LiveOptions::setText(std::string_view name, std::string_view value) {
  const std::lock_guard lock(m_mutex);
  checkChangeable(m_options.scope(), name);
  m_options.setText(name, value);
}

void LiveOptions::setBinary(std::string_view name, const void* value, std::size_t size) {
  const std::lock_guard lock(m_mutex);
  checkChangeable(m_options.scope(), name);
  m_options.setBinary(name, value, size);
}

void LiveOptions::getText(std::string_view name, char* buffer, std::size_t& size) const {
  const std::lock_guard lock(m_mutex);
  m_options.getText(name, buffer, size);
}

void LiveOptions::getBinary(std::string_view name, void* buffer, std::size_t& size) const {
  const std::lock_guard lock(m_mutex);
  m_options.getBinary(name, buffer, size);
}

std::vector<std::pair<std::string_view, std::string>> LiveOptions::texts() const {
  const std::lock_guard lock(m_mutex);
  return m_options.texts();
}

}  // namespace engine
