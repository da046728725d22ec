// The options of a context, or of an event queue, as statistics show them.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "options/live_options.h"
#include "options/option_set.h"
#include "statistics/context_statistics.h"

namespace engine::core {

// One row for each value that some object of a scope has, however many objects have it: ten thousand receivers with the
// same options take the rows of one.
//
// Threads: any.
class OptionRows {
 public:
  // The context's labels; empty for an event queue, which is no context's.
  OptionRows(std::string context, std::string handle) : m_context(std::move(context)), m_handle(std::move(handle)) {}

  void Add(Scope scope, const std::vector<ShownOption>& options);

  // Of the context itself: those that it has now, and no others.
  void Replace(const LiveOptions& options);

 private:
  using Labels = std::array<std::string, 4>;  // owner, option, value, origin

  void AddLocked(Scope scope, const std::vector<ShownOption>& options);

  const std::string m_context;
  const std::string m_handle;
  std::mutex m_mutex;
  std::map<Labels, std::unique_ptr<zq::statistics::Row>> m_rows;  // guarded by m_mutex
};

}  // namespace engine::core
