// The configuration of the process: one XML file.
//
//   auto config = ps_ns::Config::Load("client.xml", "PSConfig");
//   bool notify = config->GetCompositeNode("Logging")->GetAttrValue<bool>("lbmNotifications", false);
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ps_common/config/composite_node.h"
#include "ps_common/config/config_helper.h"

#pragma GCC visibility push(default)

namespace ps_ns {

// A configuration file that cannot be used. The text starts with "path: " or, where there is a line to look at,
// "path:line: ", and says what to do.
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Config;
using ConfigPtr = std::shared_ptr<Config>;

// The whole file. Names of nodes are paths with "." between the names, relative to the root element or from it on (see
// GetQualifiedName); an element whose own name contains "." cannot be reached.
//
// Threads: const operations may run at the same time.
class Config : public ConfigHelper {
 public:
  // A tree of the smallest elements takes some two hundred times the memory of its file.
  static constexpr std::size_t kMaxFileSize = std::size_t{1} << 20;  // bytes
  static constexpr std::size_t kMaxNesting = 64;                     // elements, the root included

  // Reads and parses the file at path. expectedRoot is the name that the root element must have; empty accepts any.
  // Throws ConfigError.
  //
  // The file is XML 1.0, in UTF-8 or in the encoding that it declares; what is read from it is UTF-8. Document type
  // declarations are refused, so there are no entities but the predefined ones. An element's text is what stands
  // between tags, comments, processing instructions and CDATA sections, each piece without the blanks at its ends and
  // with one blank for several, then joined; CDATA sections and references such as &#32; keep their blanks.
  static ConfigPtr Load(const std::string& path, const std::string& expectedRoot = {});

  // Parses XML held in memory; path stands for it in error texts and is what GetPath returns.
  static ConfigPtr Parse(const std::string& xml, const std::string& path = "<memory>",
                         const std::string& expectedRoot = {});

  // Copies a tree made elsewhere, whose only top-level node is root.
  Config(std::string path, std::string root, const boost::property_tree::ptree& tree);

  Config(const Config&) = default;
  // Leaves this object as it was when it throws.
  Config& operator=(const Config& other);
  ~Config() = default;

  // A copy of the node with that name. Throws boost::property_tree::ptree_bad_path when there is none.
  CompositeNodePtr GetCompositeNode(const std::string& name) const;

  // The text of the element with that name, or of an attribute ("Logging.<xmlattr>.lbmNotifications"); defaultValue
  // when there is none. found may be null; otherwise it tells whether the value was in the file.
  std::string GetValue(const std::string& name, const std::string& defaultValue = {}, bool* found = nullptr) const;

  // The names of the child elements of the node with that name, in the order of the file, as often as they occur. An
  // empty name stands for the root. Throws boost::property_tree::ptree_bad_path when there is no such node.
  std::vector<std::string> GetChildNames(const std::string& name = {}) const;

  struct Misspelling {
    std::string name;
    std::size_t line;  // on which its element begins; 0 in a tree that was made elsewhere
  };

  // The attribute that somebody may have written for this one, which the node with that name lacks: the one that
  // differs least, by no more than two characters that were added, left out or mistaken, upper and lower case being
  // equal. Nothing when there is none, or no such node.
  std::optional<Misspelling> FindMisspelling(const std::string& name, const std::string& attribute) const;

  const std::string& GetPath() const noexcept { return m_path; }
  const std::string& GetRoot() const noexcept { return m_root; }

 private:
  const std::string m_path;
  const std::string m_root;
  boost::property_tree::ptree m_ptree;
  std::vector<std::size_t> m_lines;  // on which the tree's elements begin, in the order of the file; may be empty
};

}  // namespace ps_ns

#pragma GCC visibility pop
