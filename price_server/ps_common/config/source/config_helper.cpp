#include "ps_common/config/config_helper.h"

namespace ps_ns {
namespace {

constexpr std::size_t kComparedLength = 8;

}  // namespace

template <>
std::string ConfigHelper::Get<std::string>(const boost::property_tree::ptree& tree, const std::string& path,
                                           const std::string& defaultValue, bool* found) {
  const auto node = tree.get_child_optional(path);
  if (found != nullptr) {
    *found = node.has_value();
  }
  return node ? node->data() : defaultValue;
}

std::string ConfigHelper::GetQualifiedName(const std::string& root, const std::string& name) {
  return name.compare(0, kComparedLength, root) == 0 ? name : root + '.' + name;
}

}  // namespace ps_ns
