#include "core/topics.h"

#include <algorithm>
#include <utility>

#include "system/error.h"

namespace engine::core {

lbm_topic_t& TopicTable::Find(std::string_view name, const OptionSet& options) {
  if (name.empty() || name.size() > LBM_TOPIC_NAME_MAX) {
    throw Error(LBM_EINVAL, "a topic name has 1 to " + std::to_string(LBM_TOPIC_NAME_MAX) + " bytes, this one has " +
                                std::to_string(name.size()));
  }
  const std::lock_guard lock(m_mutex);
  const auto [first, last] = m_topics.equal_range(name);
  for (auto known = first; known != last; ++known) {
    if (*known->second->options == options) {
      return *known->second;
    }
  }
  const auto same =
      std::find_if(m_options.begin(), m_options.end(), [&](const auto& known) { return *known == options; });
  if (same == m_options.end()) {
    m_optionRows.Add(options.GetScope(), options.Shown());
  }
  const std::shared_ptr<const OptionSet> shared =
      same != m_options.end() ? *same : m_options.emplace_back(std::make_shared<OptionSet>(options));
  std::unique_ptr<lbm_topic_t> topic(new lbm_topic_t{{*this, std::string(name), shared}});
  const std::string_view key = topic->name;
  return *m_topics.emplace(key, std::move(topic))->second;
}

}  // namespace engine::core
