// Joins the domain "test" of the runtime directory given on the command line, offers the source "peer", and subscribes
// to the source "ours". When that sends something, it publishes two messages and a request, tells so with a byte on
// standard output, and stays.
#include <poll.h>
#include <unistd.h>

#include "transport/host/host_transport.h"

using namespace engine::transport;

namespace {

class Subscriber : public Listener {
 public:
  explicit Subscriber(Transport& transport) : m_transport(transport) {}
  void sourceUp(const std::shared_ptr<RemoteSource>& source) override {
    if (source->topic() == "ours") {
      m_transport.subscribe(*source);
    }
  }
  void sourceDown(const std::shared_ptr<RemoteSource>&) override {}
  void message(RemoteSource&, InboundMessage&) override { greeted = true; }
  void loss(RemoteSource&, std::uint32_t, std::uint32_t) override {}
  void response(std::uint64_t, const std::string&, std::span<const std::byte>) override {}
  void subscriberJoined(Publication&, const std::string&) override {}
  void subscriberLeft(Publication&, const std::string&) override {}
  void writable(Publication&) override {}

  bool greeted = false;

 private:
  Transport& m_transport;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    return 2;
  }
  host::HostSettings settings;
  settings.runtimeDirectory = argv[1];
  settings.domain = "test";
  settings.contextName = "peer";
  const auto transport = host::joinHostDomain(settings);
  const auto publication = transport->advertise({"peer", "s", Pacing::source});
  Subscriber subscriber(*transport);
  while (!subscriber.greeted) {
    pollfd entry{transport->descriptor(), POLLIN, 0};
    ::poll(&entry, 1, -1);
    transport->drain(subscriber);
  }
  char text[] = "last words";
  const iovec piece{text, sizeof(text) - 1};
  OutboundMessage message;
  message.pieces = {&piece, 1};
  transport->publish(*publication, message, false);
  transport->publish(*publication, message, false);
  message.requestId = 5;
  transport->publish(*publication, message, false);
  if (::write(STDOUT_FILENO, "!", 1) != 1) {
    return 1;
  }
  for (;;) {
    ::pause();
  }
}
