// What Config and CompositeNode share: lookups in a property tree.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <string>

#pragma GCC visibility push(default)

namespace ps_ns {

// Threads: const operations may run at the same time.
class ConfigHelper {
 public:
  // The text of the node at path, names separated by "."; attributes stand below "<xmlattr>". defaultValue when there
  // is no such node. found may be null; otherwise it tells whether the node was there. Only std::string is provided.
  template <typename T>
  static T Get(const boost::property_tree::ptree& tree, const std::string& path, const T& defaultValue,
               bool* found = nullptr) = delete;

  // name as a path from the top of the file. A name whose first eight characters (all of it when shorter) equal root is
  // a full path already and comes back unchanged; any other is put below root. So "root." can be written out
  // only with a root name of eight characters; with a shorter one, only the root's bare name is a full path.
  static std::string GetQualifiedName(const std::string& root, const std::string& name);

 protected:
  ConfigHelper() = default;
  ConfigHelper(const ConfigHelper&) = default;
  ConfigHelper& operator=(const ConfigHelper&) = default;
  ~ConfigHelper() = default;
};

template <>
std::string ConfigHelper::Get<std::string>(const boost::property_tree::ptree& tree, const std::string& path,
                                           const std::string& defaultValue, bool* found);

}  // namespace ps_ns

#pragma GCC visibility pop
