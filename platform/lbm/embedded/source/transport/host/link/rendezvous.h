// How contexts of a domain find each other: a directory in which each of them has a socket, and where it says of which
// topics it has sources and which it wants.
//
//   <context>.socket                  on which others connect
//   offers/<bucket>/<key>.<context>   the context has a source of the topic
//   wants/<bucket>/<key>.<context>    the context wants to hear of sources of the topic
//
// The entries are further names of the socket: to make and to remove one costs no more than a line in a directory.
//
// Nobody watches and nobody waits: whoever offers says so first and then looks who wants, and whoever wants says so
// first and then looks who offers. So of two contexts at least the later one finds the earlier, and what it costs
// depends on those who have to do with each other, not on how many there are.
//
// A socket that refuses connections was left behind by a process that died; it is removed with all its names. Names are
// never used twice, so that cannot hit a living context.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// What a context may say of a topic.
enum class Role : std::uint8_t { kOffers, kWants };

// A topic as the directory names it. Topics that share a key, which is as good as never, only bring contexts together
// that have nothing to tell each other.
std::string KeyOf(std::string_view topic);
inline const std::string kEveryTopic = "all";  // the key of those that want to hear of all sources

// The name of a context, of which the instance tells it from every other; see wire::Greeting.
std::string ContextFileName(std::uint32_t process, std::uint64_t instance);

// A context's place in the directory of its domain. Threads: any.
class Rendezvous {
 public:
  // Throws as OpenDomain does.
  Rendezvous(const std::string& runtimeDirectory, const std::string& domain, std::string name);
  ~Rendezvous() { Leave(); }
  Rendezvous(const Rendezvous&) = delete;
  Rendezvous& operator=(const Rendezvous&) = delete;

  const std::string& Name() const noexcept { return m_name; }

  // Puts the socket in place, before anything else. Returns the descriptor on which others connect, which stays open
  // until Leave. Throws as OpenDomain does.
  int Join();

  // Says it, until it has been taken back as often. Throws as OpenDomain does, and has said nothing then.
  void Say(Role role, const std::string& key);
  void TakeBack(Role role, const std::string& key) noexcept;

  // The names of the other contexts that say it, or of all that are there. Throw as OpenDomain does.
  std::vector<std::string> WhoElse(Role role, const std::string& key) const;
  // Whether the context of that name says it, or is there at all: its socket may still refuse.
  bool Says(Role role, const std::string& key, const std::string& name) const;
  bool IsThere(const std::string& name) const;
  std::vector<std::string> Others() const;

  enum class Outcome : std::uint8_t { kConnected, kBacklogFull, kGone, kNoContext };
  // Connects to the context of that name, without waiting; one that is gone is cleared away. kNoContext: something else
  // has the name. Throws as OpenDomain does.
  Outcome Connect(const std::string& name, zq::posix::Descriptor& socket) const;

  // Takes away all of it: nobody finds this context any more, and who was waiting in the backlog is hung up on. What is
  // said after it has no effect. Idempotent.
  void Leave() noexcept;

 private:
  struct Said {
    std::string entry;  // relative to the domain's directory
    unsigned count = 0;
  };

  void PutSocket();
  Outcome Call(const std::string& name, zq::posix::Descriptor& socket) const;
  void ClearUp() const;
  void Bury(const std::vector<std::string>& names) const;
  void Make(const std::string& entry) const;
  bool Has(const std::string& file) const;
  void Remove(const std::string& file) const noexcept;
  template <typename Visit>
  void VisitFiles(const std::string& directory, Visit visit) const;

  const std::string m_path;  // of the domain's directory, for error texts
  const std::string m_name;
  const std::string m_socketFile;
  const zq::posix::Descriptor m_directory;

  std::mutex m_mutex;
  // Guarded by m_mutex:
  zq::posix::Descriptor m_socket;
  bool m_left = false;
  std::array<std::unordered_map<std::string, Said>, 2> m_said;  // by the role, and the key
};

}  // namespace engine::transport::host
