#include "ps_common/config/composite_node.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <utility>

namespace ps_ns {

CompositeNode::CompositeNode(std::string nodeName, const boost::property_tree::ptree& tree)
    : m_nodeName(std::move(nodeName)), m_ptree(tree) {}

template <>
std::string CompositeNode::GetAttrValue<std::string>(const std::string& attribute, const std::string& defaultValue,
                                                     bool* found) const {
  return Get<std::string>(m_ptree, "<xmlattr>." + attribute, defaultValue, found);
}

template <>
bool CompositeNode::GetAttrValue<bool>(const std::string& attribute, const bool& defaultValue, bool* found) const {
  std::string text = GetAttrValue<std::string>(attribute, defaultValue ? "1" : "0", found);
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  if (text == "1" || text == "TRUE" || text == "YES" || text == "T") {
    return true;
  }
  if (text == "0" || text == "FALSE" || text == "NO" || text == "F") {
    return false;
  }
  throw std::runtime_error("Invalid Value " + text + " for Attribute " + attribute);
}

}  // namespace ps_ns
