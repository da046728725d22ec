#include "ps_common/config/config.h"

#include <memory>
#include <system_error>
#include <utility>

#include "xml_reader.h"
#include "zq/posix/file.h"

namespace ps_ns {
namespace {

namespace pt = boost::property_tree;

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

}  // namespace

ConfigPtr Config::Load(const std::string& path, const std::string& expectedRoot) {
  return Parse(ReadFile(path), path, expectedRoot);
}

ConfigPtr Config::Parse(const std::string& xml, const std::string& path, const std::string& expectedRoot) {
  if (xml.size() > kMaxFileSize) {
    FailTooLarge(path);
  }
  try {
    pt::ptree tree = ReadXml(xml, expectedRoot, kMaxNesting);
    auto config = std::make_shared<Config>(path, tree.front().first, pt::ptree());
    config->m_ptree.swap(tree);  // a tree cannot be moved
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
  Replace(m_path, std::move(path));
  Replace(m_root, std::move(root));
  m_ptree.swap(tree);
  return *this;
}

CompositeNodePtr Config::GetCompositeNode(const std::string& name) const {
  return std::make_shared<CompositeNode>(name, m_ptree.get_child(GetQualifiedName(m_root, name)));
}

std::string Config::GetValue(const std::string& name, const std::string& defaultValue, bool* found) const {
  return Get<std::string>(m_ptree, GetQualifiedName(m_root, name), defaultValue, found);
}

std::vector<std::string> Config::GetChildNames(const std::string& name) const {
  std::vector<std::string> names;
  for (const auto& [child, tree] : m_ptree.get_child(name.empty() ? m_root : GetQualifiedName(m_root, name))) {
    if (child != "<xmlattr>") {
      names.push_back(child);
    }
  }
  return names;
}

}  // namespace ps_ns
