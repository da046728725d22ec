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
  void OnSourceUp(const std::shared_ptr<RemoteSource>& source) override {
    if (source->Topic() == "ours") {
      m_transport.Subscribe(*source);
    }
  }
  void OnSourceDown(const std::shared_ptr<RemoteSource>&) override {}
  void OnMessage(RemoteSource&, InboundMessage&) override { greeted = true; }
  void OnLoss(RemoteSource&, std::uint32_t, std::uint32_t) override {}
  void OnResponse(std::uint64_t, const std::string&, std::span<const std::byte>) override {}
  void OnSubscriberJoined(Publication&, const std::string&) override {}
  void OnSubscriberLeft(Publication&, const std::string&) override {}
  void OnWritable(Publication&) override {}

  bool greeted = false;

 private:
  Transport& m_transport;
};

void Drain(Transport& transport, Subscriber& subscriber) {
  if (transport.Park()) {
    pollfd entry{transport.GetDescriptor(), POLLIN, 0};
    ::poll(&entry, 1, -1);
    transport.Unpark();
  }
  transport.Drain(subscriber);
}

int SayLastWords(Transport& transport, Publication& publication, Subscriber& subscriber) {
  while (!subscriber.greeted) {
    Drain(transport, subscriber);
  }
  char text[] = "last words";
  const iovec piece{text, sizeof(text) - 1};
  OutboundMessage message;
  message.pieces = {&piece, 1};
  transport.Publish(publication, message, {});
  transport.Publish(publication, message, {});
  message.requestId = 5;
  transport.Publish(publication, message, {});
  if (::write(STDOUT_FILENO, "!", 1) != 1) {
    return 1;
  }
  for (;;) {
    ::pause();
  }
}

[[noreturn]] void Flood(Transport& transport, Publication& publication, Subscriber& subscriber) {
  for (std::uint32_t number = 0;; ++number) {
    std::vector<std::byte> content = host::FloodMessage(number);
    const iovec piece{content.data(), content.size()};
    OutboundMessage message;
    message.pieces = {&piece, 1};
    transport.DrainMemory(subscriber);
    while (transport.Publish(publication, message, {}) != SendResult::kSent) {
      Drain(transport, subscriber);
    }
    if (number % 64 == 0) {
      transport.Drain(subscriber);
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
  const auto transport = host::JoinHostDomain(settings);
  const auto publication = transport->Advertise({"peer", Pacing::kReceiver});
  Subscriber subscriber(*transport);
  if (std::string_view(argv[2]) == "flood") {
    Flood(*transport, *publication, subscriber);
  }
  return SayLastWords(*transport, *publication, subscriber);
}
