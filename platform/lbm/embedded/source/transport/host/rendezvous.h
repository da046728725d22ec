// Where the contexts of a domain meet: a directory that holds a socket for each of them.
//
// Joining is serialised by a lock on a file there. Whoever holds it puts its own socket in place before it looks for
// those of others, so of two contexts the later one always finds the earlier. A socket that refuses connections was
// left by a process that died and is removed.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// Opens the domain's directory, creating it and the runtime directory when missing. Refuses what others might tamper
// with, with a text that names the path and the remedy.
zq::posix::Descriptor OpenDomain(const std::string& runtimeDirectory, const std::string& domain);

class Rendezvous {
 public:
  // A connection to a context of the domain, or none while that context has too many waiting for it.
  struct Neighbour {
    std::string name;
    zq::posix::Descriptor socket;
  };

  Rendezvous(const std::string& runtimeDirectory, const std::string& domain, std::uint64_t session);
  ~Rendezvous() { Leave(); }
  Rendezvous(const Rendezvous&) = delete;
  Rendezvous& operator=(const Rendezvous&) = delete;

  // Takes a place in the domain and connects to every other context.
  // Fails when another process keeps it from that for so long.
  std::vector<Neighbour> Join(std::chrono::milliseconds patience);

  enum class Outcome : std::uint8_t { kConnected, kBacklogFull, kGone };
  // Tries once, without waiting.
  Outcome Connect(Neighbour& neighbour) const;

  // The socket on which other contexts connect.
  int Listener() const noexcept { return m_listener.Get(); }

  // Gives the place up: nobody can connect any more, and who was about to is hung up on. Idempotent.
  void Leave() noexcept;

 private:
  std::vector<std::string> OtherSockets() const;

  const std::string m_path;  // of the domain's directory, for error texts
  const std::string m_name;  // of the own socket in it
  const zq::posix::Descriptor m_directory;
  zq::posix::Descriptor m_listener;
  bool m_bound = false;
};

// Whether the process at the other end of a connection runs as the same user.
bool SameUser(int socket) noexcept;

}  // namespace engine::transport::host
