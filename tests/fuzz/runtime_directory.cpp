// What may lie in the runtime directory when a context comes: it finds the others nevertheless, and touches nothing
// outside.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "harness/host.h"
#include "transport/host/link/rendezvous.h"

namespace fuzz {
namespace {

namespace fs = std::filesystem;

// A context's name: of a process that is gone, of one that is there, or of none.
std::string ContextName(Input& input) {
  const auto process =
      input.PickValueInArray({std::to_string(INT32_MAX), std::to_string(::getpid()), std::string("x")});
  return input.UpTo<std::uint8_t>(7) == 0 ? input.Text(60) : process + "-0";
}

// The name of a file, relative to the domain's directory, as a context might look for it.
std::string FileName(Input& input) {
  const std::string context = ContextName(input);
  const std::string key =
      input.ConsumeBool() ? host::kEveryTopic : host::KeyOf(input.ConsumeBool() ? "topic" : "prices");
  const std::string bucket = key.substr(0, 2) + '/' + key + '.' + context;
  switch (input.UpTo<std::uint8_t>(5)) {
    case 0:
      return context + ".socket";
    case 1:
      return context + ".joining";
    case 2:
      return "offers/" + bucket;
    case 3:
      return "wants/" + bucket;
    case 4:
      return "offers/" + input.Text(8);
    default:
      return input.Text(300);
  }
}

class Rubbish {
 public:
  // outside: where links may lead.
  Rubbish(fs::path domain, const fs::path& outside) : m_domain(std::move(domain)), m_outside(outside) {}
  ~Rubbish() {
    std::error_code ignored;
    for (const fs::path& path : m_made) {
      fs::remove_all(path, ignored);
    }
  }
  Rubbish(const Rubbish&) = delete;
  Rubbish& operator=(const Rubbish&) = delete;

  void Add(Input& input) {
    const std::string name = FileName(input);
    if (name.find('\0') != std::string::npos || name.find("..") != std::string::npos || name.empty() ||
        name.front() == '/') {
      return;
    }
    const fs::path path = m_domain / name;
    std::error_code ignored;
    if (fs::exists(fs::symlink_status(path, ignored))) {
      return;
    }
    switch (input.UpTo<std::uint8_t>(6)) {
      case 0:
        std::ofstream(path) << "rubbish";
        break;
      case 1:
        fs::create_directory(path, ignored);
        break;
      case 2:
        fs::create_symlink(input.ConsumeBool() ? m_outside : fs::path("nowhere"), path, ignored);
        break;
      case 3:
        ::mkfifo(path.c_str(), S_IRWXU);
        break;
      default:
        AddSocket(input, path);
    }
    m_made.push_back(path);
  }

 private:
  // Of a dead process, of one that never accepts, or of another kind.
  void AddSocket(Input& input, const fs::path& path) {
    const int type = input.UpTo<std::uint8_t>(3) == 0 ? SOCK_DGRAM : SOCK_SEQPACKET;
    zq::posix::Descriptor socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (path.native().size() < sizeof(sockaddr_un::sun_path)) {
      host::AtAddress(::bind, socket, path);
      if (input.ConsumeBool()) {
        ::listen(socket.Get(), input.UpTo<std::uint8_t>(1));
      }
      if (input.ConsumeBool()) {
        m_sockets.push_back(std::move(socket));
      }
    }
  }

  const fs::path m_domain;
  const fs::path& m_outside;
  std::vector<fs::path> m_made;
  std::vector<zq::posix::Descriptor> m_sockets;
};

void Join(Input& input, HostNeighbours& neighbours) {
  static const test_support::TemporaryDirectory outside;
  const fs::path kept = outside.Path() / ("key." + std::to_string(INT32_MAX) + "-0");
  std::ofstream(kept) << "somebody's";
  {
    Rubbish rubbish(neighbours.directory.Path() / "test", outside.Path());
    for (int files = 0; input.Left() && files < 12; ++files) {
      rubbish.Add(input);
    }
    neighbours.Welcome(host::JoinHostDomain(neighbours.SettingsFor("newcomer")));
  }
  Require(fs::exists(kept), "nothing outside of the directory is touched");
}

}  // namespace
}  // namespace fuzz

FUZZ_NEIGHBOURS_WITH(fuzz::Join)
