// How contexts of a domain find each other: a directory that holds a listening socket for each of them.
//
// Joining is serialised by a lock on a file there. Whoever holds it binds its own socket before it lists those of
// others, so of two contexts the later one always finds the earlier. A socket that refuses connections was left behind
// by a process that died, and is removed.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// A context's socket in the directory of its domain. Threads: one at a time.
class Rendezvous {
 public:
  // Another context: the name of its socket, and a connection to it unless its backlog was full.
  struct Neighbour {
    std::string name;
    zq::posix::Descriptor socket;
  };

  // instance: of the context, see wire::Greeting. Throws as OpenDomain does.
  Rendezvous(const std::string& runtimeDirectory, const std::string& domain, std::uint64_t instance);
  ~Rendezvous() { Leave(); }
  Rendezvous(const Rendezvous&) = delete;
  Rendezvous& operator=(const Rendezvous&) = delete;

  // Puts the socket in place and connects to every other context. Throws when one and the same process keeps the
  // lock for longer than patience.
  std::vector<Neighbour> Join(std::chrono::milliseconds patience);

  enum class Outcome : std::uint8_t { kConnected, kBacklogFull, kGone };
  // Tries once, without waiting.
  Outcome Connect(Neighbour& neighbour) const;

  // The socket on which later contexts connect.
  int ListeningSocket() const noexcept { return m_socket.Get(); }

  // Takes the socket away: nobody can connect any more, and who was waiting in the backlog is hung up on. Idempotent.
  void Leave() noexcept;

 private:
  std::vector<std::string> OtherSockets() const;

  const std::string m_path;  // of the domain's directory, for error texts
  const std::string m_name;  // of the own socket in it
  const zq::posix::Descriptor m_directory;
  zq::posix::Descriptor m_socket;
  bool m_bound = false;
};

}  // namespace engine::transport::host
