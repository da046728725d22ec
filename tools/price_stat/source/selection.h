// Which rows of pages the user asks for.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "processes.h"

namespace price_stat {

struct Selection {
  std::vector<std::string> kinds;     // none: all
  std::vector<std::string> contexts;  // names or handles; none: all rows, also those of no context

  bool TakesKind(std::string_view kind) const;
  bool TakesContext(std::string_view name, std::string_view handle) const;
  bool Takes(const RowValues& row) const;
};

}  // namespace price_stat
