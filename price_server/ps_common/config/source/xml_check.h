// The check that comes before the XML parser, which recurses without limit, does not compare end tags with start tags
// and stops at a zero byte without a word.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace ps_ns {

struct XmlFault : std::runtime_error {
  XmlFault(std::size_t atLine, const std::string& what) : std::runtime_error(what), line(atLine) {}
  std::size_t line;
};

// Reads text from end to end without recursion and returns the name of its root element. Accepts well-formed elements,
// attributes, character data, CDATA sections, comments and processing instructions, all of them terminated, with one
// root and no more than maxNesting elements inside each other. expectedRoot may be empty. Throws XmlFault.
std::string CheckXml(std::string_view text, const std::string& expectedRoot, std::size_t maxNesting);

}  // namespace ps_ns
