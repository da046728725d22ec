#include <algorithm>
#include <functional>

#include "network.h"

namespace engine::transport::nats {
namespace {

const std::string kPayload(8'000, 'x');

class NetworkPacing : public testing::Test {
 protected:
  void Start(Pacing pacing, const NatsSettings& settings) {
    m_source = std::make_unique<Member>(SettingsFor(m_server.Url()), false);
    m_publication = m_source->transport->Advertise({"T", pacing});
    m_slow = std::make_unique<Member>(settings);
    DrainUntil({m_source.get(), m_slow.get()}, "the subscription", [&] { return m_source->events.size() == 2; });
  }

  SendResult Send(bool block = false) { return Publish(*m_source->transport, *m_publication, kPayload, block); }

  const test_support::NatsServer m_server;
  std::unique_ptr<Member> m_source;
  std::unique_ptr<Member> m_slow;
  std::shared_ptr<Publication> m_publication;
};

TEST_F(NetworkPacing, PublishersOfSeveralThreadsWaitForTheReceiverThoughNobodyDrainsTheirContext) {
  Start(Pacing::kReceiver, SettingsFor(m_server.Url()));
  const auto other = m_source->transport->Advertise({"U", Pacing::kReceiver});
  DrainUntil({m_source.get(), m_slow.get()}, "the subscription", [&] { return m_source->events.size() == 4; });
  ExpectOrderAmongThreads(*m_source->transport, {m_publication.get(), m_publication.get(), other.get()}, *m_slow,
                          {m_slow.get()});
}

TEST(SlowConsumer, IsCutOffByTheServerAndComesBackWithAFullAccount) {
  const test_support::NatsServer server("max_payload: 65536\nmax_pending: 65536\nwrite_deadline: \"100ms\"");
  NatsSettings settings = SettingsFor(server.Url());
  settings.peerTimeout = std::chrono::minutes(10);  // however long it takes until it is cut off
  Member a(settings, false);
  settings.announcementInterval = std::chrono::seconds(60);  // nor does its keeper read
  Member b(settings);
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  DrainUntil({&a, &b}, "the subscription", [&] { return a.events.size() == 2; });
  std::size_t sent = 0;
  const auto send = [&](const std::string& text) {
    ASSERT_EQ(Publish(*a.transport, *publication, text), SendResult::kSent);
    ++sent;
  };
  const auto isCut = [&] { return server.Log().find("Slow Consumer") != std::string::npos; };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (sent % 100 != 0 || !isCut()) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << server.Log();
    send(kPayload);
    a.Drain();
  }
  // By now it is away.
  send(kPayload);
  DrainUntil({&a, &b}, "the way back", [&] { return b.Notices().size() == 2; });
  EXPECT_THAT(b.Notices().back(), testing::HasSubstr("again"));
  DrainUntil({&a, &b}, "an account of all", [&] { return b.messages + b.lost == sent; });
  EXPECT_GT(b.lost, 0U);
  const std::size_t lost = b.lost;
  for (int i = 0; i < 10; ++i) {
    send("after");  // short: more than the server holds for it would cut it off again
  }
  DrainUntil({&a, &b}, "the next messages", [&] { return b.messages + b.lost == sent; });
  EXPECT_EQ(b.lost, lost);
  // Of a loss this long not every number is noted: nothing came twice, and nothing out of order.
  EXPECT_EQ(std::adjacent_find(b.sequences.begin(), b.sequences.end(), std::greater_equal<>()), b.sequences.end());
  EXPECT_FALSE(b.Heard("down T"));
}

}  // namespace
}  // namespace engine::transport::nats
