// What sources and receivers are made from.
#pragma once

#include <lbm/lbm.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/option_rows.h"
#include "options/option_set.h"

namespace engine::core {

class TopicTable;

// Immutable; belongs to its context's table and lives as long as it.
struct Topic {
  const TopicTable& table;
  std::string name;
  std::shared_ptr<const OptionSet> options;  // of scope source or receiver
};

// The topics of a context. Threads: any.
class TopicTable {
 public:
  explicit TopicTable(OptionRows& optionRows) noexcept : m_optionRows(optionRows) {}

  // The topic of that name and with such options (of scope source or receiver): the same each time. Throws Error when
  // the name is empty or too long.
  lbm_topic_t& Find(std::string_view name, const OptionSet& options);

 private:
  OptionRows& m_optionRows;
  std::mutex m_mutex;
  // Guarded by m_mutex:
  std::unordered_multimap<std::string_view, std::unique_ptr<lbm_topic_t>> m_topics;  // by their names
  std::vector<std::shared_ptr<const OptionSet>> m_options;                           // all different
};

}  // namespace engine::core

struct lbm_topic_t_stct : engine::core::Topic {};
