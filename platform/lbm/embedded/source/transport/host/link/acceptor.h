// Where a context's connections come from: those it makes when it joins its domain, and those that contexts make to it
// which join later.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <vector>

#include "system/poller.h"
#include "transport/host/link/rendezvous.h"
#include "transport/host/link/retry_timer.h"
#include "transport/warnings.h"
#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// What the system refuses for the moment (descriptors, memory, watches) is kept, reported once, and tried
// again when the retry timer goes off.
//
// Threads: one at a time.
class Acceptor {
 public:
  // Makes a link of the connection. Throws std::system_error, and leaves the socket alone, when the system refuses it
  // for the moment; anything else that it throws is the end of that connection.
  using Adopt = std::function<void(zq::posix::Descriptor& socket)>;

  // acceptToken: of the events in the poller at which to call Accept.
  Acceptor(Rendezvous& rendezvous, Poller& poller, Poller::Token acceptToken, RetryTimer& retryTimer,
           const Warnings& warnings, Adopt adopt);

  // Joins the domain and adopts the connections to all contexts that are there; see Rendezvous::Join. What fails here
  // is thrown.
  void Join(std::chrono::milliseconds patience);

  // Adopts connections that others have made, up to a bound, and returns how many.
  std::size_t Accept();

  // Tries again what was refused. To be called when the retry timer has gone off.
  void Retry();

 private:
  void TryToAdopt(zq::posix::Descriptor socket);
  void PauseAccepting();
  void RetryBacklogged();
  template <typename Compose>
  void WarnOfRefusal(Compose compose) noexcept;

  Rendezvous& m_rendezvous;
  Poller& m_poller;
  const Poller::Token m_acceptToken;
  RetryTimer& m_retryTimer;
  const Warnings& m_warnings;
  const Adopt m_adopt;
  std::vector<Rendezvous::Neighbour> m_backlogged;  // neighbours whose backlog was full
  std::vector<zq::posix::Descriptor> m_refused;     // connections that could not be adopted yet
  bool m_refusalTold = false;                       // since the last connection was adopted
};

// Whether the process at the other end of a connection runs as the same user.
bool SameUser(int socket) noexcept;

}  // namespace engine::transport::host
