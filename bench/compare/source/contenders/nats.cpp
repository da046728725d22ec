// NATS: core publish and subscribe with the client library alone.
#include <nats/nats.h>

#include <stdexcept>

#include "contender.h"
#include "nats_server.h"

namespace compare {

namespace {

constexpr std::size_t kWindow = 4096;

void Check(natsStatus status) {
  if (status != NATS_OK) {
    throw std::runtime_error(std::string("nats: ") + ::natsStatus_GetText(status));
  }
}

class NatsNode : public Node {
 public:
  NatsNode(const std::string& url, const NodeSetup& setup) : m_sink(setup.sink), m_topics(setup.publishes) {
    natsOptions* options = nullptr;
    Check(::natsOptions_Create(&options));
    Check(::natsOptions_SetURL(options, url.c_str()));
    // One thread for all subscriptions, instead of one for each.
    Check(::natsOptions_UseGlobalMessageDelivery(options, true));
    // A publisher's messages are collected by the library as it does by default; answers go out at once.
    Check(::natsOptions_SetSendAsap(options, !setup.publishes.empty() && !setup.subscribes.empty()));
    Check(::natsConnection_Connect(&m_connection, options));
    ::natsOptions_Destroy(options);
    for (const std::string& topic : setup.subscribes) {
      Check(::natsConnection_Subscribe(&m_subscriptions.emplace_back(), m_connection, topic.c_str(), Deliver, this));
    }
    if (!setup.subscribes.empty()) {
      Check(::natsConnection_Flush(m_connection));
    }
  }
  ~NatsNode() override {
    ::natsConnection_Close(m_connection);
    for (natsSubscription* subscription : m_subscriptions) {
      ::natsSubscription_Destroy(subscription);
    }
    ::natsConnection_Destroy(m_connection);
  }

  void Send(std::size_t topic, const char* data, std::size_t length) override {
    Check(::natsConnection_Publish(m_connection, m_topics[topic].c_str(), data, static_cast<int>(length)));
  }

  // The library delivers on a thread of its own.
  void Poll(int timeoutMs) override {
    if (timeoutMs > 0) {
      ::nats_Sleep(1);
    }
  }

 private:
  static void Deliver(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    static_cast<NatsNode*>(closure)->m_sink->Take(::natsMsg_GetData(message),
                                                  static_cast<std::size_t>(::natsMsg_GetDataLength(message)));
    ::natsMsg_Destroy(message);
  }

  Sink* const m_sink;
  const std::vector<std::string> m_topics;
  natsConnection* m_connection = nullptr;
  std::vector<natsSubscription*> m_subscriptions;
};

}  // namespace

Contender MakeContender(const std::filesystem::path&) {
  return {.version = std::string("client ") + ::nats_GetVersion(),
          .transport = "core publish/subscribe over loopback TCP through a server",
          .pacing = "none of its own; at most " + std::to_string(kWindow) + " messages ahead",
          .window = kWindow,
          .server = NatsServerProcess(),
          .makeNode = [server = NatsServer()](const NodeSetup& setup) {
            return std::make_unique<NatsNode>(server, setup);
          }};
}

}  // namespace compare
