#include "transport/host/link/rendezvous.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <thread>
#include <utility>

#include "transport/host/link/runtime_directory.h"
#include "transport/host/wire/frames.h"
#include "transport/instance.h"
#include "zq/posix/file.h"

namespace engine::transport::host {

namespace {

constexpr std::string_view kSocketSuffix = ".socket";
constexpr std::size_t kSocketNameMax = 64;  // bytes; nobody's is longer
constexpr const char* kLockName = "lock";
constexpr int kBacklog = 4096;

// The address of a socket in a directory. The path through the descriptor is short however long the directory's is.
sockaddr_un AddressOf(int directory, const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  constexpr std::string_view kPrefix = "/proc/self/fd/";
  static_assert(kPrefix.size() + sizeof("2147483647/") + kSocketNameMax <= sizeof(address.sun_path));
  const std::string path = std::string(kPrefix) + std::to_string(directory) + "/" + name;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return address;
}

const sockaddr* Generic(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

zq::posix::Descriptor OpenSocket() {
  return zq::posix::Descriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

std::string SocketName(std::uint64_t instance) {
  return std::to_string(::getpid()) + "-" + InstanceText(instance) + std::string(kSocketSuffix);
}

std::string FirstLine(const zq::posix::Descriptor& file) {
  const std::string text = zq::posix::ReadBeginning(file.Get(), 64);
  return text.substr(0, text.find('\n'));
}

// Locks the domain for as long as the returned descriptor lives. The file names the holder, so that those who wait can
// tell a crowd that moves on from a process that is stopped, and say which one that is.
zq::posix::Descriptor LockDomain(int directory, const std::string& path, const std::string& self,
                                 std::chrono::milliseconds patience) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kPollInterval{1};
  zq::posix::Descriptor file(
      ::openat(directory, kLockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file) {
    RefuseErrno(path, "creating the lock file");
  }
  std::string holder = FirstLine(file);
  auto deadline = Clock::now() + patience;
  while (::flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EINTR && errno != EWOULDBLOCK) {
      RefuseErrno(path, "locking the lock file");
    }
    if (std::string present = FirstLine(file); present != holder) {
      holder = std::move(present);
      deadline = Clock::now() + patience;
    } else if (Clock::now() >= deadline) {
      Refuse(path, (holder.empty() ? "another process" : holder) + " has been joining for more than " +
                       std::to_string(patience.count()) +
                       " ms and keeps all others out; if it is stopped, continue it (kill -CONT) or end it");
    }
    std::this_thread::sleep_for(kPollInterval);
  }
  const std::string line = self + '\n';
  // A name that cannot be written costs others only their patience.
  if (::pwrite(file.Get(), line.data(), line.size(), 0) < 0) {
    static_cast<void>(::ftruncate(file.Get(), 0));
  }
  return file;
}

}  // namespace

Rendezvous::Rendezvous(const std::string& runtimeDirectory, const std::string& domain, std::uint64_t instance)
    : m_path(runtimeDirectory + "/" + domain),
      m_name(SocketName(instance)),
      m_directory(OpenDomain(runtimeDirectory, domain)),
      m_socket(OpenSocket()) {
  if (!m_socket) {
    RefuseErrno(m_path, "opening a socket");
  }
}

std::vector<Rendezvous::Neighbour> Rendezvous::Join(std::chrono::milliseconds patience) {
  const zq::posix::Descriptor lock =
      LockDomain(m_directory.Get(), m_path, "process " + std::to_string(::getpid()) + ", " + m_name, patience);
  const sockaddr_un address = AddressOf(m_directory.Get(), m_name);
  if (::bind(m_socket.Get(), Generic(address), sizeof(address)) != 0) {
    RefuseErrno(m_path, "creating a socket");
  }
  m_bound = true;
  if (::listen(m_socket.Get(), kBacklog) != 0) {
    RefuseErrno(m_path, "listening");
  }
  std::vector<Neighbour> neighbours;
  for (std::string& name : OtherSockets()) {
    Neighbour neighbour{std::move(name), {}};
    if (Connect(neighbour) != Outcome::kGone) {
      neighbours.push_back(std::move(neighbour));
    }
  }
  return neighbours;
}

Rendezvous::Outcome Rendezvous::Connect(Neighbour& neighbour) const {
  zq::posix::Descriptor socket = OpenSocket();
  if (!socket) {
    RefuseErrno(m_path, "opening a socket");
  }
  const sockaddr_un address = AddressOf(m_directory.Get(), neighbour.name);
  while (::connect(socket.Get(), Generic(address), sizeof(address)) != 0) {
    if (errno == EAGAIN) {
      return Outcome::kBacklogFull;
    }
    if (errno == ECONNREFUSED) {
      // Names are never used twice, so this cannot hit a living context.
      ::unlinkat(m_directory.Get(), neighbour.name.c_str(), 0);
    }
    if (errno != EINTR) {
      return Outcome::kGone;
    }
  }
  neighbour.socket = std::move(socket);
  return Outcome::kConnected;
}

void Rendezvous::Leave() noexcept {
  if (m_bound) {
    ::unlinkat(m_directory.Get(), m_name.c_str(), 0);
    m_socket = zq::posix::Descriptor();
    m_bound = false;
  }
}

std::vector<std::string> Rendezvous::OtherSockets() const {
  zq::posix::Descriptor descriptor(::openat(m_directory.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  DIR* opened = descriptor ? ::fdopendir(descriptor.Get()) : nullptr;
  if (opened == nullptr) {
    RefuseErrno(m_path, "listing the directory");
  }
  descriptor.Release();
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opened, &::closedir);
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    const bool maybeSocket = entry->d_type == DT_SOCK || entry->d_type == DT_UNKNOWN;
    if (maybeSocket && name.size() <= kSocketNameMax && name.ends_with(kSocketSuffix) && name != m_name) {
      names.emplace_back(name);
    }
  }
  return names;
}

}  // namespace engine::transport::host
