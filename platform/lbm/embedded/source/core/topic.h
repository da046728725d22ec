// What sources and receivers are made from.
#pragma once

#include <memory>
#include <string>

#include "options/option_set.h"

namespace engine::core {

class Context;

// Immutable; belongs to its context and lives as long as it.
struct Topic {
  Context& context;
  std::string name;
  std::shared_ptr<const OptionSet> options;  // of scope source or receiver
};

}  // namespace engine::core

struct lbm_topic_t_stct : engine::core::Topic {};
