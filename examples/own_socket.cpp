// Has the dispatch thread read a socket of the application's and run its background work, so that callbacks of
// messages, the socket and the work need no locks among each other.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <future>
#include <iostream>
#include <string>
#include <string_view>

#include "ps_common/config/config.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "ps_common/connector/shutdown_guard.h"

namespace {

// Touched by the dispatch thread only.
struct Application {
  std::promise<std::string> order;
  int backlog = 1000;  // pieces of work that nobody waits for
};

int OnReadable(lbm_context_t* /*context*/, int socket, lbm_ulong_t /*event*/, void* clientData) {
  std::array<char, 512> text{};
  const auto length = ::read(socket, text.data(), text.size());
  if (length > 0) {
    static_cast<Application*>(clientData)->order.set_value({text.data(), static_cast<std::size_t>(length)});
  }
  return 0;
}

}  // namespace

int main() {
  Application application;
  auto order = application.order.get_future();

  // Stands for a gateway's connection.
  std::array<int, 2> sockets{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets.data()) != 0) {
    return 1;
  }

  // One piece of work at a time, at most 20 between two looks for messages; false: there is no more for now.
  const auto work = [&application] { return application.backlog > 0 && --application.backlog > 0; };
  const auto config = ps_ns::Config::Parse("<Config><General/><Logging/></Config>");
  ps_ns::LbmClientResourceMgr manager(config, "own_socket", false, -1, 1, work, 20);
  {
    const ps_ns::ShutdownGuard guard(manager);
    if (!manager.RegisterSocketForReadEvents(sockets[0], &OnReadable, &application)) {
      return 1;
    }
    constexpr std::string_view kOrder = "buy 100 MSFT";
    if (::write(sockets[1], kOrder.data(), kOrder.size()) > 0) {
      std::cout << "the dispatch thread read: " << order.get() << '\n';
    }
    manager.UnregisterSocketForReadEvents(sockets[0]);
  }
  // After the shutdown nobody else touches the application's state.
  std::cout << "pieces of work left: " << application.backlog << '\n';
  ::close(sockets[0]);
  ::close(sockets[1]);
}
