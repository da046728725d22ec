#include "transport/host/link/acceptor.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <string>
#include <system_error>
#include <utility>

#include "transport/fault.h"
#include "zq/posix/error.h"

namespace engine::transport::host {

namespace {

// Connections accepted in one call.
constexpr std::size_t kAcceptedMax = 64;

const std::string kNotTakenIn = "cannot take in another context: ";

bool IsShortage(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS; }

}  // namespace

Acceptor::Acceptor(Rendezvous& rendezvous, Poller& poller, Poller::Token acceptToken, RetryTimer& retryTimer,
                   const Warnings& warnings, Adopt adopt)
    : m_rendezvous(rendezvous),
      m_poller(poller),
      m_acceptToken(acceptToken),
      m_retryTimer(retryTimer),
      m_warnings(warnings),
      m_adopt(std::move(adopt)) {}

void Acceptor::Join(std::chrono::milliseconds patience) {
  for (Rendezvous::Neighbour& neighbour : m_rendezvous.Join(patience)) {
    if (neighbour.socket) {
      m_adopt(neighbour.socket);
    } else {
      m_backlogged.push_back(std::move(neighbour));
    }
  }
  m_poller.Add(m_rendezvous.ListeningSocket(), m_acceptToken, EPOLLIN);
  if (!m_backlogged.empty()) {
    m_retryTimer.Start();
  }
}

std::size_t Acceptor::Accept() {
  std::size_t accepted = 0;
  for (std::size_t attempt = 0; attempt < kAcceptedMax; ++attempt) {
    zq::posix::Descriptor socket(
        ::accept4(m_rendezvous.ListeningSocket(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket) {
      TryToAdopt(std::move(socket));
      ++accepted;
    } else if (IsShortage(errno)) {
      WarnOfRefusal([error = errno] {
        return kNotTakenIn + zq::posix::ErrorText(error) + "; raise the limit of open files (ulimit -n)";
      });
      PauseAccepting();
      break;
    } else if (errno != EINTR && errno != ECONNABORTED) {
      break;
    }
  }
  return accepted;
}

void Acceptor::Retry() {
  m_poller.Change(m_rendezvous.ListeningSocket(), m_acceptToken, EPOLLIN);
  for (zq::posix::Descriptor& socket : std::exchange(m_refused, {})) {
    TryToAdopt(std::move(socket));
  }
  RetryBacklogged();
}

// A connection among many: what goes wrong with it must not be the end of this context.
void Acceptor::TryToAdopt(zq::posix::Descriptor socket) {
  try {
    m_refused.reserve(m_refused.size() + 1);  // so that keeping the socket cannot fail below
    m_adopt(socket);
    m_refusalTold = false;
  } catch (const std::system_error& error) {
    WarnOfRefusal([&] { return kNotTakenIn + error.what(); });
    m_refused.push_back(std::move(socket));
    m_retryTimer.Start();
  } catch (const std::exception& error) {
    m_warnings.Tell([&] { return kNotTakenIn + TextOf(error); });
  }
}

// The listener stays readable while the system refuses; looking at it all the time would only burn the processor.
void Acceptor::PauseAccepting() {
  m_poller.Change(m_rendezvous.ListeningSocket(), m_acceptToken, 0);
  m_retryTimer.Start();
}

void Acceptor::RetryBacklogged() {
  for (auto neighbour = m_backlogged.begin(); neighbour != m_backlogged.end();) {
    auto outcome = Rendezvous::Outcome::kBacklogFull;
    try {
      outcome = m_rendezvous.Connect(*neighbour);
    } catch (const std::exception& error) {
      WarnOfRefusal([&] { return TextOf(error); });
    }
    if (outcome == Rendezvous::Outcome::kConnected) {
      TryToAdopt(std::move(neighbour->socket));
    }
    neighbour = outcome == Rendezvous::Outcome::kBacklogFull ? neighbour + 1 : m_backlogged.erase(neighbour);
  }
  if (!m_backlogged.empty()) {
    m_retryTimer.Start();
  }
}

// Tells the first refusal only: while the system refuses, it is asked again and again.
template <typename Compose>
void Acceptor::WarnOfRefusal(Compose compose) noexcept {
  if (!std::exchange(m_refusalTold, true)) {
    m_warnings.Tell(compose);
  }
}

bool SameUser(int socket) noexcept {
  ucred peer{};
  socklen_t size = sizeof(peer);
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == ::geteuid();
}

}  // namespace engine::transport::host
