// The connections that other contexts make to this one.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

#include "system/poller.h"
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

  // listener: the descriptor on which others connect, which is watched in the poller with the token from now on; call
  // Accept at its events.
  Acceptor(int listener, Poller& poller, Poller::Token token, RetryTimer& retryTimer, const Warnings& warnings,
           Adopt adopt);

  // Adopts connections that others have made, up to a bound, and returns how many.
  std::size_t Accept();

  // Tries again what was refused. To be called when the retry timer has gone off.
  void Retry();

 private:
  void TryToAdopt(zq::posix::Descriptor socket);
  void PauseAccepting();
  template <typename Compose>
  void WarnOfRefusal(Compose compose) noexcept;

  const int m_listener;
  Poller& m_poller;
  const Poller::Token m_token;
  RetryTimer& m_retryTimer;
  const Warnings& m_warnings;
  const Adopt m_adopt;
  std::vector<zq::posix::Descriptor> m_refused;  // connections that could not be adopted yet
  bool m_paused = false;                         // the listener is not watched for the moment
  bool m_refusalTold = false;                    // since the last connection was adopted
};

// The process at the other end of a connection, 0 when it is out of sight; none when it runs as another user.
std::optional<pid_t> ProcessOfSameUser(int socket) noexcept;

}  // namespace engine::transport::host
