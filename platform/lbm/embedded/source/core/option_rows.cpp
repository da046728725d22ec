#include "core/option_rows.h"

#include <algorithm>

namespace engine::core {

void OptionRows::Add(Scope scope, const std::vector<ShownOption>& options) {
  const std::lock_guard lock(m_mutex);
  AddLocked(scope, options);
}

void OptionRows::Replace(const LiveOptions& options) {
  // Asked for with the lock held, so that of two changes at once the later one is shown in the end.
  const std::lock_guard lock(m_mutex);
  const std::vector<ShownOption> present = options.Shown();
  std::erase_if(m_rows, [&](const auto& entry) {
    const auto& [owner, name, value, origin] = entry.first;
    const auto isThis = [&name = name, &value = value, &origin = origin](const auto& option) {
      return name == option.name && value == option.value && origin == option.origin;
    };
    return owner == NameOf(Scope::kContext) && std::none_of(present.begin(), present.end(), isThis);
  });
  AddLocked(Scope::kContext, present);
}

void OptionRows::AddLocked(Scope scope, const std::vector<ShownOption>& options) {
  for (const ShownOption& option : options) {
    const Labels labels{std::string(NameOf(scope)), std::string(option.name), option.value, option.origin};
    if (auto& row = m_rows[labels]; row == nullptr) {
      row.reset(new zq::statistics::Row(OptionRow({m_context, m_handle, labels[0], labels[1], labels[2], labels[3]})));
    }
  }
}

}  // namespace engine::core
