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
#include "zq/posix/fork.h"

namespace engine::transport::host {

namespace {

// Connections accepted in one call.
constexpr std::size_t kAcceptedMax = 64;

const std::string kNotTakenIn = "cannot take in another context: ";

bool IsShortage(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS; }

}  // namespace

Acceptor::Acceptor(int listener, Poller& poller, Poller::Token token, RetryTimer& retryTimer, const Warnings& warnings,
                   Adopt adopt)
    : m_listener(listener),
      m_poller(poller),
      m_token(token),
      m_retryTimer(retryTimer),
      m_warnings(warnings),
      m_adopt(std::move(adopt)) {
  m_poller.Add(m_listener, m_token, EPOLLIN);
}

std::size_t Acceptor::Accept() {
  std::size_t accepted = 0;
  for (std::size_t attempt = 0; attempt < kAcceptedMax; ++attempt) {
    zq::posix::Descriptor socket = zq::posix::OpenUnshared(
        [this] { return ::accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC); });
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
  if (std::exchange(m_paused, false)) {
    m_poller.Change(m_listener, m_token, EPOLLIN);
  }
  for (zq::posix::Descriptor& socket : std::exchange(m_refused, {})) {
    TryToAdopt(std::move(socket));
  }
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
    m_warnings.Tell([&] { return kNotTakenIn + TextOf(error); });  // whoever calls will call again
  }
}

// The listener stays readable while the system refuses; looking at it all the time would only burn the processor.
void Acceptor::PauseAccepting() {
  m_poller.Change(m_listener, m_token, 0);
  m_paused = true;
  m_retryTimer.Start();
}

// Tells the first refusal only: while the system refuses, it is asked again and again.
template <typename Compose>
void Acceptor::WarnOfRefusal(Compose compose) noexcept {
  if (!std::exchange(m_refusalTold, true)) {
    m_warnings.Tell(compose);
  }
}

std::optional<pid_t> ProcessOfSameUser(int socket) noexcept {
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.uid != ::geteuid()) {
    return std::nullopt;
  }
  return peer.pid;
}

}  // namespace engine::transport::host
