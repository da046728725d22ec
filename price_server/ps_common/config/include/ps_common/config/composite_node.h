// One named part of the configuration.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <memory>
#include <string>

#include "ps_common/config/config_helper.h"

#pragma GCC visibility push(default)

namespace ps_ns {

// A copy of one sub-tree of the configuration: it stays valid and unchanged whatever happens to the Config.
//
// Threads: immutable after construction.
class CompositeNode : public ConfigHelper {
 public:
  CompositeNode(std::string nodeName, const boost::property_tree::ptree& tree);

  // The value of an attribute of this node, or defaultValue when it is missing. found may be null; otherwise it tells
  // whether the attribute was in the file. T is std::string or bool.
  //
  // A bool is written 1, TRUE, YES, T or 0, FALSE, NO, F, in any case and without blanks; any other text throws
  // std::runtime_error with the text and the attribute's name.
  template <typename T>
  T GetAttrValue(const std::string& attribute, const T& defaultValue, bool* found = nullptr) const = delete;

  // The name by which the node was asked for.
  const std::string& GetNodeName() const noexcept { return m_nodeName; }
  const boost::property_tree::ptree& GetPTree() const noexcept { return m_ptree; }

 private:
  const std::string m_nodeName;
  boost::property_tree::ptree m_ptree;
};

template <>
std::string CompositeNode::GetAttrValue<std::string>(const std::string& attribute, const std::string& defaultValue,
                                                     bool* found) const;
template <>
bool CompositeNode::GetAttrValue<bool>(const std::string& attribute, const bool& defaultValue, bool* found) const;

using CompositeNodePtr = std::shared_ptr<CompositeNode>;

}  // namespace ps_ns

#pragma GCC visibility pop
