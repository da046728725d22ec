#include "ps_common/config/config.h"

#include <algorithm>
#include <cctype>
#include <memory>
#include <numeric>
#include <string_view>
#include <system_error>
#include <utility>

#include "xml_reader.h"
#include "zq/posix/file.h"

namespace ps_ns {
namespace {

namespace pt = boost::property_tree;

constexpr const char* kAttributes = "<xmlattr>";

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
  throw ConfigError(path + ": configuration file cannot be used: " + what);
}

[[noreturn]] void FailTooLarge(const std::string& path) {
  Fail(path, "it is larger than " + std::to_string(Config::kMaxFileSize) +
                 " bytes. Check that it is the right file, or make it smaller");
}

std::string ReadFile(const std::string& path) {
  try {
    return zq::posix::ReadFile(path, Config::kMaxFileSize);
  } catch (const std::system_error& error) {
    if (error.code() == std::errc::file_too_large) {
      FailTooLarge(path);
    }
    if (error.code() == std::errc::is_a_directory) {
      Fail(path, "it is a directory. Give the path of an XML file");
    }
    Fail(path, "cannot read it: " + error.code().message() + ". Check the path and its permissions");
  }
}

// Assignment to a member that is const for everyone else. The new string takes the old one's place as an object, which
// the language allows for a const member of a non-const object, and nothing here can throw.
void Replace(const std::string& member, std::string&& value) noexcept {
  std::destroy_at(&member);
  std::construct_at(&member, std::move(value));
}

// How many characters have to be added, removed or replaced to make one word the other, upper and lower case being
// equal.
std::size_t EditDistance(std::string_view one, std::string_view other) {
  const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
  // distances[i]: from the beginning of one that has been looked at to the first i characters of other
  std::vector<std::size_t> distances(other.size() + 1);
  std::iota(distances.begin(), distances.end(), std::size_t{0});
  for (const char c : one) {
    std::size_t diagonal = distances[0]++;
    for (std::size_t i = 0; i < other.size(); ++i) {
      const std::size_t replaced = diagonal + (lower(c) == lower(other[i]) ? 0 : 1);
      diagonal = distances[i + 1];
      distances[i + 1] = std::min({replaced, distances[i] + 1, diagonal + 1});
    }
  }
  return distances.back();
}

// Adds to index how many elements of tree stand before element, which need not be in it; returns whether it is.
bool CountUpTo(const pt::ptree& element, const pt::ptree& tree, std::size_t& index) {
  for (const auto& [name, child] : tree) {
    if (name == kAttributes) {
      continue;
    }
    if (&child == &element) {
      return true;
    }
    ++index;
    if (CountUpTo(element, child, index)) {
      return true;
    }
  }
  return false;
}

}  // namespace

ConfigPtr Config::Load(const std::string& path, const std::string& expectedRoot) {
  return Parse(ReadFile(path), path, expectedRoot);
}

ConfigPtr Config::Parse(const std::string& xml, const std::string& path, const std::string& expectedRoot) {
  if (xml.size() > kMaxFileSize) {
    FailTooLarge(path);
  }
  try {
    XmlDocument document = ReadXml(xml, expectedRoot, kMaxNesting);
    auto config = std::make_shared<Config>(path, document.tree.front().first, pt::ptree());
    config->m_ptree.swap(document.tree);  // a tree cannot be moved
    config->m_lines = std::move(document.lines);
    return config;
  } catch (const XmlFault& fault) {
    Fail(path + ':' + std::to_string(fault.line), fault.what());
  }
}

Config::Config(std::string path, std::string root, const pt::ptree& tree)
    : m_path(std::move(path)), m_root(std::move(root)), m_ptree(tree) {}

Config& Config::operator=(const Config& other) {
  std::string path = other.m_path;
  std::string root = other.m_root;
  pt::ptree tree = other.m_ptree;
  std::vector<std::size_t> lines = other.m_lines;
  Replace(m_path, std::move(path));
  Replace(m_root, std::move(root));
  m_ptree.swap(tree);
  m_lines.swap(lines);
  return *this;
}

CompositeNodePtr Config::GetCompositeNode(const std::string& name) const {
  return std::make_shared<CompositeNode>(name, m_ptree.get_child(GetQualifiedName(m_root, name)));
}

std::string Config::GetValue(const std::string& name, const std::string& defaultValue, bool* found) const {
  return Get<std::string>(m_ptree, GetQualifiedName(m_root, name), defaultValue, found);
}

std::optional<Config::Misspelling> Config::FindMisspelling(const std::string& name,
                                                           const std::string& attribute) const {
  const auto node = m_ptree.get_child_optional(GetQualifiedName(m_root, name));
  const auto attributes = node ? node->get_child_optional(kAttributes) : boost::none;
  if (!attributes || attributes->count(attribute) != 0) {
    return std::nullopt;
  }
  constexpr std::size_t kFarthest = 2;
  std::size_t least = kFarthest + 1;
  const std::string* closest = nullptr;
  for (const auto& [candidate, value] : *attributes) {
    if (const std::size_t distance = EditDistance(candidate, attribute); distance < least) {
      least = distance;
      closest = &candidate;
    }
  }
  if (closest == nullptr) {
    return std::nullopt;
  }
  std::size_t index = 0;
  CountUpTo(*node, m_ptree, index);
  return Misspelling{*closest, index < m_lines.size() ? m_lines[index] : 0};
}

std::vector<std::string> Config::GetChildNames(const std::string& name) const {
  std::vector<std::string> names;
  for (const auto& [child, tree] : m_ptree.get_child(name.empty() ? m_root : GetQualifiedName(m_root, name))) {
    if (child != kAttributes) {
      names.push_back(child);
    }
  }
  return names;
}

}  // namespace ps_ns
