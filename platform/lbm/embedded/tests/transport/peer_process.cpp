// Joins the domain "test" of the runtime directory given on the command line, offers the source "peer", subscribes to
// the source "ours", and stays until it is killed. What it does with them is the second argument:
// last-words  when "ours" sends something, publishes two messages and a request and tells so with a byte on standard
//             output;
// flood       publishes numbered messages for ever.
#include <poll.h>
#include <unistd.h>

#include <string_view>
#include <vector>

#include "flood.h"
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

void drain(Transport& transport, Subscriber& subscriber) {
  if (transport.arm()) {
    pollfd entry{transport.descriptor(), POLLIN, 0};
    ::poll(&entry, 1, -1);
    transport.disarm();
  }
  transport.drain(subscriber);
}

int sayLastWords(Transport& transport, Publication& publication, Subscriber& subscriber) {
  while (!subscriber.greeted) {
    drain(transport, subscriber);
  }
  char text[] = "last words";
  const iovec piece{text, sizeof(text) - 1};
  OutboundMessage message;
  message.pieces = {&piece, 1};
  transport.publish(publication, message, false);
  transport.publish(publication, message, false);
  message.requestId = 5;
  transport.publish(publication, message, false);
  if (::write(STDOUT_FILENO, "!", 1) != 1) {
    return 1;
  }
  for (;;) {
    ::pause();
  }
}

[[noreturn]] void flood(Transport& transport, Publication& publication, Subscriber& subscriber) {
  for (std::uint32_t number = 0;; ++number) {
    std::vector<std::byte> content = host::floodMessage(number);
    const iovec piece{content.data(), content.size()};
    OutboundMessage message;
    message.pieces = {&piece, 1};
    transport.drainMemory(subscriber);
    while (transport.publish(publication, message, false) != SendResult::sent) {
      drain(transport, subscriber);
    }
    if (number % 64 == 0) {
      transport.drain(subscriber);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    return 2;
  }
  host::HostSettings settings;
  settings.runtimeDirectory = argv[1];
  settings.domain = "test";
  settings.contextName = "peer";
  settings.ringBytes = host::kFloodRingBytes;
  const auto transport = host::joinHostDomain(settings);
  const auto publication = transport->advertise({"peer", "s", Pacing::receiver});
  Subscriber subscriber(*transport);
  if (std::string_view(argv[2]) == "flood") {
    flood(*transport, *publication, subscriber);
  }
  return sayLastWords(*transport, *publication, subscriber);
}
