#include "transport/host/link/rendezvous.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "transport/hash.h"
#include "transport/host/link/runtime_directory.h"
#include "transport/instance.h"
#include "zq/posix/fork.h"

namespace engine::transport::host {

namespace {

constexpr std::string_view kSocketSuffix = ".socket";
constexpr std::string_view kJoiningSuffix = ".joining";  // of a socket that does not listen yet
constexpr std::array<std::string_view, 2> kRoleDirectories = {"offers", "wants"};
constexpr std::size_t kNameMax = 48;  // bytes of a context's name; nobody's is longer
constexpr int kBacklog = 4096;

constexpr std::size_t kBucketDigits = 2;  // of a key

std::string DirectoryOf(Role role) { return std::string(kRoleDirectories[static_cast<std::size_t>(role)]); }

std::string BucketOf(Role role, const std::string& key) {
  return DirectoryOf(role) + '/' + key.substr(0, kBucketDigits);
}

std::string EntryOf(Role role, const std::string& key, const std::string& name) {
  return BucketOf(role, key) + '/' + key + '.' + name;
}

std::string SocketOf(const std::string& name) { return name + std::string(kSocketSuffix); }

// The context of a file whose name ends so; none if that is no such file.
std::optional<std::string> ContextOf(std::string_view file, std::string_view suffix) {
  if (!file.ends_with(suffix) || file.size() == suffix.size() || file.size() - suffix.size() > kNameMax) {
    return std::nullopt;
  }
  return std::string(file.substr(0, file.size() - suffix.size()));
}

// Whether the process in a context's name is certainly none of those that this one can see.
bool ProcessIsGone(const std::string& name) {
  pid_t process = 0;
  const char* const end = name.data() + name.size();
  const auto [rest, error] = std::from_chars(name.data(), end, process);
  return error == std::errc() && rest != end && *rest == '-' && process > 0 && ::kill(process, 0) != 0 &&
         errno == ESRCH;
}

constexpr std::string_view kOwnDescriptors = "/proc/self/fd/";

// The address of a file in a directory. The path through the descriptor is short however long the directory's is.
sockaddr_un AddressOf(int directory, const std::string& file) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  static_assert(kOwnDescriptors.size() + sizeof("2147483647/") + kNameMax + kJoiningSuffix.size() <=
                sizeof(address.sun_path));
  const std::string path = std::string(kOwnDescriptors) + std::to_string(directory) + "/" + file;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return address;
}

// Throws when it is for want of such paths that an address was not found. path: of the domain.
void CheckOwnDescriptors(const std::string& path) {
  if (::access(kOwnDescriptors.data(), F_OK) != 0) {
    Refuse(path, "sockets are reached through " + std::string(kOwnDescriptors) + ", which is not there; mount /proc");
  }
}

const sockaddr* Generic(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

zq::posix::Descriptor OpenSocket(const std::string& path) {
  zq::posix::Descriptor socket =
      zq::posix::OpenUnshared([] { return ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); });
  if (!socket) {
    RefuseErrno(path, "opening a socket");
  }
  return socket;
}

// Creates the directory below that of the domain, unless it is there.
bool MakeDirectory(int domain, const std::string& name) {
  return ::mkdirat(domain, name.c_str(), S_IRWXU) == 0 || errno == EEXIST;
}

}  // namespace

// Those whose names begin with a dot are left out; there are none where no directory is.
template <typename Visit>
void Rendezvous::VisitFiles(const std::string& directory, Visit visit) const {
  zq::posix::Descriptor descriptor(
      ::openat(m_directory.Get(), directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!descriptor && (errno == ENOENT || errno == ENOTDIR)) {
    return;
  }
  DIR* const opened = descriptor ? ::fdopendir(descriptor.Get()) : nullptr;
  if (opened == nullptr) {
    RefuseErrno(m_path, "listing a directory");
  }
  descriptor.Release();
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(opened, &::closedir);
  while (const dirent* const entry = ::readdir(stream.get())) {
    if (entry->d_name[0] != '.') {
      visit(std::string_view(entry->d_name));
    }
  }
}

std::string KeyOf(std::string_view topic) {
  std::string key = InstanceText(StableHash(topic));
  key.insert(0, 2 * sizeof(std::uint64_t) - key.size(), '0');
  return key;
}

std::string ContextFileName(std::uint32_t process, std::uint64_t instance) {
  return std::to_string(process) + '-' + InstanceText(instance);
}

Rendezvous::Rendezvous(const std::string& runtimeDirectory, const std::string& domain, std::string name)
    : m_path(runtimeDirectory + "/" + domain),
      m_name(std::move(name)),
      m_socketFile(SocketOf(m_name)),
      m_directory(OpenDomain(runtimeDirectory, domain)) {}

int Rendezvous::Join() {
  ClearUp();
  const std::lock_guard lock(m_mutex);
  PutSocket();
  return m_socket.Get();
}

// A socket refuses connections until it listens, so it gets its name only then: nobody takes it for a dead one.
void Rendezvous::PutSocket() {
  const std::string joining = m_name + std::string(kJoiningSuffix);
  const sockaddr_un address = AddressOf(m_directory.Get(), joining);
  zq::posix::Descriptor socket = OpenSocket(m_path);
  if (::bind(socket.Get(), Generic(address), sizeof(address)) != 0) {
    const int error = errno;
    CheckOwnDescriptors(m_path);
    errno = error;
    RefuseErrno(m_path, "creating a socket");
  }
  if (::listen(socket.Get(), kBacklog) != 0 ||
      ::renameat(m_directory.Get(), joining.c_str(), m_directory.Get(), m_socketFile.c_str()) != 0) {
    const int error = errno;
    Remove(joining);
    errno = error;
    RefuseErrno(m_path, "listening on a socket");
  }
  m_socket = std::move(socket);
}

void Rendezvous::Say(Role role, const std::string& key) {
  const std::lock_guard lock(m_mutex);
  if (m_left) {
    return;
  }
  auto& said = m_said[static_cast<std::size_t>(role)];
  const auto [place, isNew] = said.try_emplace(key);
  if (isNew) {
    try {
      place->second.entry = EntryOf(role, key, m_name);
      Make(place->second.entry);
    } catch (...) {
      said.erase(place);
      throw;
    }
  }
  ++place->second.count;
}

void Rendezvous::Make(const std::string& entry) const {
  const int domain = m_directory.Get();
  const auto link = [&] {
    return ::linkat(domain, m_socketFile.c_str(), domain, entry.c_str(), 0) == 0 ||
           // A file has so many names on some file systems; any other file serves as well.
           (errno == EMLINK && ::mknodat(domain, entry.c_str(), S_IFREG | S_IRUSR | S_IWUSR, 0) == 0);
  };
  if (link()) {
    return;
  }
  if (errno == ENOENT && MakeDirectory(domain, entry.substr(0, entry.find('/'))) &&
      MakeDirectory(domain, entry.substr(0, entry.rfind('/'))) && link()) {
    return;
  }
  if (errno == ENOENT) {
    Refuse(m_path, "it was removed while contexts met there; end all of them and start them again");
  }
  RefuseErrno(m_path, "creating a file");
}

void Rendezvous::TakeBack(Role role, const std::string& key) noexcept {
  const std::lock_guard lock(m_mutex);
  auto& said = m_said[static_cast<std::size_t>(role)];
  const auto found = said.find(key);
  if (found != said.end() && --found->second.count == 0) {
    Remove(found->second.entry);
    said.erase(found);
  }
}

void Rendezvous::Remove(const std::string& file) const noexcept { ::unlinkat(m_directory.Get(), file.c_str(), 0); }

std::vector<std::string> Rendezvous::WhoElse(Role role, const std::string& key) const {
  std::vector<std::string> names;
  const std::string prefix = key + '.';
  VisitFiles(BucketOf(role, key), [&](std::string_view file) {
    if (file.starts_with(prefix) && file.substr(prefix.size()) != m_name && file.size() <= prefix.size() + kNameMax) {
      names.emplace_back(file.substr(prefix.size()));
    }
  });
  return names;
}

bool Rendezvous::Says(Role role, const std::string& key, const std::string& name) const {
  return Has(EntryOf(role, key, name));
}

bool Rendezvous::IsThere(const std::string& name) const { return Has(SocketOf(name)); }

bool Rendezvous::Has(const std::string& file) const {
  return ::faccessat(m_directory.Get(), file.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

std::vector<std::string> Rendezvous::Others() const {
  std::vector<std::string> names;
  VisitFiles(".", [&](std::string_view file) {
    if (auto name = ContextOf(file, kSocketSuffix); name && *name != m_name) {
      names.push_back(std::move(*name));
    }
  });
  return names;
}

Rendezvous::Outcome Rendezvous::Connect(const std::string& name, zq::posix::Descriptor& socket) const {
  Outcome outcome = Call(name, socket);
  // Asked twice, since nobody digs a context up again.
  if (outcome == Outcome::kGone && (outcome = Call(name, socket)) == Outcome::kGone) {
    Bury({name});
  }
  return outcome;
}

Rendezvous::Outcome Rendezvous::Call(const std::string& name, zq::posix::Descriptor& socket) const {
  zq::posix::Descriptor made = OpenSocket(m_path);
  const sockaddr_un address = AddressOf(m_directory.Get(), SocketOf(name));
  while (::connect(made.Get(), Generic(address), sizeof(address)) != 0) {
    switch (errno) {
      case EINTR:
        continue;
      case EAGAIN:
        return Outcome::kBacklogFull;
      case ENOENT:
        CheckOwnDescriptors(m_path);
        [[fallthrough]];
      case ECONNREFUSED:
        return Outcome::kGone;
      case EPROTOTYPE:
        return Outcome::kNoContext;
      default:
        RefuseErrno(m_path, "connecting to a context");
    }
  }
  socket = std::move(made);
  return Outcome::kConnected;
}

// Removes what dead contexts have left, as far as their processes show it; the others are found by who connects to
// them.
void Rendezvous::ClearUp() const {
  std::vector<std::string> dead;
  VisitFiles(".", [&](std::string_view file) {
    if (const auto joining = ContextOf(file, kJoiningSuffix); joining && ProcessIsGone(*joining)) {
      Remove(std::string(file));
    }
    if (auto name = ContextOf(file, kSocketSuffix); name && ProcessIsGone(*name)) {
      dead.push_back(std::move(*name));
    }
  });
  // A process may also be out of this one's sight.
  std::erase_if(dead, [&](const std::string& name) {
    zq::posix::Descriptor socket;
    return Call(name, socket) != Outcome::kGone;
  });
  if (!dead.empty()) {
    Bury(dead);
  }
}

// The socket's own name goes last: as long as it is there, somebody will find the others.
void Rendezvous::Bury(const std::vector<std::string>& names) const {
  const auto isOfThem = [&](std::string_view entry) {
    return std::find(names.begin(), names.end(), entry.substr(std::min(entry.find('.') + 1, entry.size()))) !=
           names.end();
  };
  for (const Role role : {Role::kOffers, Role::kWants}) {
    const std::string directory = DirectoryOf(role);  // with a slash at its end, a link would be followed
    VisitFiles(directory, [&](std::string_view bucket) {
      const std::string path = directory + '/' + std::string(bucket);
      VisitFiles(path, [&](std::string_view entry) {
        if (isOfThem(entry)) {
          Remove(path + '/' + std::string(entry));
        }
      });
    });
  }
  for (const std::string& name : names) {
    Remove(SocketOf(name));
  }
}

void Rendezvous::Leave() noexcept {
  const std::lock_guard lock(m_mutex);
  if (std::exchange(m_left, true) || !m_socket) {
    return;
  }
  Remove(m_socketFile);
  m_socket = zq::posix::Descriptor();
  for (const auto& said : m_said) {
    for (const auto& [key, one] : said) {
      Remove(one.entry);
    }
  }
}

}  // namespace engine::transport::host
