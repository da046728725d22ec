#include "selection.h"

#include <algorithm>

namespace price_stat {
namespace {

bool Holds(const std::vector<std::string>& texts, std::string_view text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

}  // namespace

bool Selection::TakesKind(std::string_view kind) const { return kinds.empty() || Holds(kinds, kind); }

bool Selection::TakesContext(std::string_view name, std::string_view handle) const {
  return contexts.empty() || Holds(contexts, name) || Holds(contexts, handle);
}

bool Selection::Takes(const RowValues& row) const {
  return TakesKind(row.kind->name) && TakesContext(row.Label("context"), row.Label("handle"));
}

}  // namespace price_stat
