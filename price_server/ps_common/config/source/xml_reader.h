// XML text as a property tree.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace ps_ns {

struct XmlFault : std::runtime_error {
  XmlFault(std::size_t atLine, const std::string& what) : std::runtime_error(what), line(atLine) {}
  std::size_t line;
};

struct XmlDocument {
  boost::property_tree::ptree tree;
  std::vector<std::size_t> lines;  // on which the elements begin, in the order of the text
};

// Reads text as Config::Load says. The tree's only top-level node is the root element, whose name has to be
// expectedRoot unless that is empty; attributes stand below "<xmlattr>", before the child elements. maxNesting is how
// many elements may be inside each other. Throws XmlFault.
XmlDocument ReadXml(const std::string& text, const std::string& expectedRoot, std::size_t maxNesting);

}  // namespace ps_ns
