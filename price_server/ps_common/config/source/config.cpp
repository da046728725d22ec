#include "ps_common/config/config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/property_tree/xml_parser.hpp>
#include <cerrno>
#include <memory>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "xml_check.h"

namespace ps_ns {
namespace {

namespace pt = boost::property_tree;

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
  throw ConfigError(path + ": configuration file can not be used: " + what);
}

[[noreturn]] void Fail(const std::string& path, std::size_t line, const std::string& what) {
  Fail(path + ':' + std::to_string(line), what);
}

[[noreturn]] void FailTooLarge(const std::string& path) {
  Fail(path, "it is larger than " + std::to_string(Config::kMaxFileSize) +
                 " bytes. Check that it is the right file, or make it smaller");
}

class Descriptor {
 public:
  explicit Descriptor(int value) noexcept : m_value(value) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (m_value != -1) {
      ::close(m_value);
    }
  }
  int Get() const noexcept { return m_value; }

 private:
  int m_value;
};

std::string ReadFile(const std::string& path) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.Get() == -1) {
    Fail(path, "can not open it: " + std::system_category().message(errno) + ". Check the path and its permissions");
  }
  struct stat status {};
  if (::fstat(file.Get(), &status) == 0 && S_ISDIR(status.st_mode)) {
    Fail(path, "it is a directory. Give the path of an XML file");
  }
  // The size that fstat reports means nothing for a pipe or for a file that is still growing.
  constexpr std::size_t kChunk = 64 * 1024;
  std::string text;
  for (;;) {
    const std::size_t size = text.size();
    text.resize(size + kChunk);
    const ssize_t count = ::read(file.Get(), text.data() + size, kChunk);
    if (count == -1 && errno != EINTR) {
      Fail(path, "can not read it: " + std::system_category().message(errno));
    }
    text.resize(size + static_cast<std::size_t>(count > 0 ? count : 0));
    if (count == 0) {
      return text;
    }
    if (text.size() > Config::kMaxFileSize) {
      FailTooLarge(path);
    }
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
    std::string root = CheckXml(xml, expectedRoot, kMaxNesting);
    std::istringstream stream(xml);
    pt::ptree tree;
    pt::read_xml(stream, tree, pt::xml_parser::no_comments | pt::xml_parser::trim_whitespace);
    return std::make_shared<Config>(path, std::move(root), std::move(tree));
  } catch (const XmlFault& fault) {
    Fail(path, fault.line, fault.what());
  } catch (const pt::xml_parser_error& error) {
    Fail(path, error.line(), error.message());
  }
}

Config::Config(std::string path, std::string root, pt::ptree tree)
    : m_path(std::move(path)), m_root(std::move(root)), m_ptree(std::move(tree)) {}

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
