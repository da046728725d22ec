// Contexts for the tests of the network transport.
#pragma once

#include <nats/nats.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "../transport/witness.h"
#include "test_support/nats_server.h"
#include "transport/nats/nats_transport.h"
#include "transport/nats/subjects.h"
#include "transport/nats/wire.h"

namespace engine::transport::nats {

// Quick, so that tests need not wait long for what comes with intervals.
inline NatsSettings SettingsFor(const std::string& url, const std::string& name = "") {
  NatsSettings settings;
  settings.server.servers = url;
  settings.server.pingInterval = std::chrono::milliseconds(500);
  settings.domain = "test";
  settings.contextName = name;
  settings.announcementInterval = std::chrono::milliseconds(100);
  settings.peerTimeout = std::chrono::milliseconds(5'000);
  return settings;
}

// A context that wants to hear of all sources, unless it is told which.
class Member : public Witness {
 public:
  explicit Member(NatsSettings settings, bool subscribes = true, bool watchesAll = true)
      : Witness(
            [&](const WarningHandler& warn) {
              settings.warn = warn;
              return JoinNatsDomain(settings);
            },
            subscribes, watchesAll) {}
};

// Somebody else on the server, who speaks no protocol of ours unless the test does.
class Stranger {
 public:
  explicit Stranger(const std::string& url) {
    natsConnection* made = nullptr;
    EXPECT_EQ(NATS_OK, ::natsConnection_ConnectTo(&made, url.c_str()));
    m_connection.reset(made);
  }

  void Say(const std::string& subject, Bytes bytes) const {
    EXPECT_EQ(NATS_OK, ::natsConnection_Publish(m_connection.get(), subject.c_str(), bytes.data(),
                                                static_cast<int>(bytes.size())));
    EXPECT_EQ(NATS_OK, ::natsConnection_Flush(m_connection.get()));
  }
  void Say(const std::string& subject, const std::string& text) const { Say(subject, std::as_bytes(std::span(text))); }

  void ListenTo(const std::string& subject) {
    natsSubscription* made = nullptr;
    EXPECT_EQ(NATS_OK, ::natsConnection_SubscribeSync(&made, m_connection.get(), subject.c_str()));
    EXPECT_EQ(NATS_OK, ::natsConnection_Flush(m_connection.get()));
    m_subscription.reset(made);
  }

  // What was said by now.
  std::vector<Message> Heard() const {
    EXPECT_EQ(NATS_OK, ::natsConnection_Flush(m_connection.get()));
    std::vector<Message> heard;
    while (Message message = Next(m_subscription.get())) {
      heard.push_back(std::move(message));
    }
    return heard;
  }

 private:
  struct Closes {
    void operator()(natsConnection* connection) const { ::natsConnection_Destroy(connection); }
  };
  std::unique_ptr<natsConnection, Closes> m_connection;
  SubscriptionHandle m_subscription;
};

}  // namespace engine::transport::nats
