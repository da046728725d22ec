#include "transport/host/rendezvous.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include "transport/host/host_transport.h"
#include "transport/host/wire.h"
#include "zq/posix/environment.h"
#include "zq/posix/error.h"
#include "zq/posix/file.h"

namespace engine::transport::host {

namespace {

constexpr std::string_view kSocketSuffix = ".socket";
constexpr const char* kLockName = "lock";
constexpr int kBacklog = 4096;

const std::string kRemedy = "or set LBM_RUNTIME_DIR to another directory";

[[noreturn]] void Refuse(const std::string& path, const std::string& fault) {
  throw std::runtime_error("cannot meet other contexts in \"" + path + "\": " + fault);
}

[[noreturn]] void RefuseErrno(const std::string& path, const std::string& action) {
  const int error = errno;
  const char* advice = "correct this ";
  if (error == ENOSPC || error == EDQUOT) {
    advice = "free space on its file system ";
  } else if (error == EACCES || error == EPERM || error == EROFS) {
    advice = "make it writable for this user ";
  } else if (error == ENOENT || error == ENOTDIR) {
    advice = "create the directories above it ";
  } else if (error == ENAMETOOLONG) {
    advice = "shorten it ";
  } else if (error == EMFILE || error == ENFILE) {
    advice = "raise the limit of open files (ulimit -n) ";
  }
  zq::posix::ThrowError(error,
                        "cannot meet other contexts in \"" + path + "\": " + action + " failed; " + advice + kRemedy);
}

zq::posix::Descriptor OpenOwnDirectory(int parent, const std::string& name, const std::string& path) {
  if (::mkdirat(parent, name.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
    RefuseErrno(path, "creating the directory");
  }
  // A link is never followed: somebody else may have put it there.
  zq::posix::Descriptor directory(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) {
    if (errno == ENOTDIR || errno == ELOOP) {
      Refuse(path, "it is a symbolic link or not a directory; remove it " + kRemedy);
    }
    RefuseErrno(path, "opening the directory");
  }
  struct stat status {};
  if (::fstat(directory.Get(), &status) != 0) {
    RefuseErrno(path, "examining the directory");
  }
  if (status.st_uid != ::geteuid()) {
    Refuse(path, "it belongs to user " + std::to_string(status.st_uid) + " and this process runs as user " +
                     std::to_string(::geteuid()) + "; remove it " + kRemedy);
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    Refuse(path, "other users may write to it; take that right away (chmod go-w) " + kRemedy);
  }
  return directory;
}

void CheckDomain(const std::string& domain) {
  if (domain.empty() || domain == "." || domain == ".." || domain.size() > NAME_MAX ||
      domain.find('/') != std::string::npos || domain.find('\0') != std::string::npos) {
    throw std::runtime_error("\"" + domain + "\" cannot be a domain: give it the form of a file name, 1 to " +
                             std::to_string(NAME_MAX) + " bytes without a slash");
  }
}

// The address of a socket in a directory. The way through the descriptor is short however long the directory's path is.
sockaddr_un AddressOf(int directory, const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/proc/self/fd/" + std::to_string(directory) + "/" + name;
  if (path.size() >= sizeof(address.sun_path)) {
    throw std::runtime_error("the socket name \"" + name + "\" is too long");
  }
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return address;
}

const sockaddr* Generic(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

zq::posix::Descriptor OpenSocket() {
  return zq::posix::Descriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

std::string SocketName(std::uint64_t session) {
  return std::to_string(::getpid()) + "-" + wire::SessionText(session) + std::string(kSocketSuffix);
}

std::string FirstLine(const zq::posix::Descriptor& file) {
  const std::string text = zq::posix::ReadBeginning(file.Get(), 64);
  return text.substr(0, text.find('\n'));
}

// Held until destroyed. The file names whoever has it, so that those who wait can tell a crowd that moves on from a
// process that stands still, and say which one that is.
zq::posix::Descriptor LockDomain(int directory, const std::string& path, const std::string& self,
                                 std::chrono::milliseconds patience) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kLookAgain{1};
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
    std::this_thread::sleep_for(kLookAgain);
  }
  const std::string line = self + '\n';
  // Only others' patience depends on it.
  if (::pwrite(file.Get(), line.data(), line.size(), 0) < 0) {
    static_cast<void>(::ftruncate(file.Get(), 0));
  }
  return file;
}

}  // namespace

std::string RuntimeDirectory() {
  if (std::string own = zq::posix::Environment("LBM_RUNTIME_DIR"); !own.empty()) {
    return own;
  }
  if (const std::string session = zq::posix::Environment("XDG_RUNTIME_DIR"); !session.empty()) {
    return session + "/lbm";
  }
  return "/tmp/lbm-" + std::to_string(::geteuid());
}

zq::posix::Descriptor OpenDomain(const std::string& runtimeDirectory, const std::string& domain) {
  CheckDomain(domain);
  std::string path = runtimeDirectory;
  // With a slash at its end, a link would be followed.
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  const zq::posix::Descriptor runtime = OpenOwnDirectory(AT_FDCWD, path, path);
  return OpenOwnDirectory(runtime.Get(), domain, path + "/" + domain);
}

Rendezvous::Rendezvous(const std::string& runtimeDirectory, const std::string& domain, std::uint64_t session)
    : m_path(runtimeDirectory + "/" + domain),
      m_name(SocketName(session)),
      m_directory(OpenDomain(runtimeDirectory, domain)),
      m_listener(OpenSocket()) {
  if (!m_listener) {
    RefuseErrno(m_path, "opening a socket");
  }
}

std::vector<Rendezvous::Neighbour> Rendezvous::Join(std::chrono::milliseconds patience) {
  const zq::posix::Descriptor lock =
      LockDomain(m_directory.Get(), m_path, "process " + std::to_string(::getpid()) + ", " + m_name, patience);
  const sockaddr_un address = AddressOf(m_directory.Get(), m_name);
  if (::bind(m_listener.Get(), Generic(address), sizeof(address)) != 0) {
    RefuseErrno(m_path, "creating a socket");
  }
  m_bound = true;
  if (::listen(m_listener.Get(), kBacklog) != 0) {
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
    m_listener = zq::posix::Descriptor();
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
    if (maybeSocket && name.ends_with(kSocketSuffix) && name != m_name) {
      names.emplace_back(name);
    }
  }
  return names;
}

bool SameUser(int socket) noexcept {
  ucred peer{};
  socklen_t size = sizeof(peer);
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == ::geteuid();
}

}  // namespace engine::transport::host
