#include "../include/engine_testing/statistics.h"
#include "network.h"

namespace engine::transport::nats {
namespace {

using engine_test::ValueOf;

NatsSettings Counted(const std::string& url, const std::string& name) {
  NatsSettings settings = SettingsFor(url, name);
  settings.statistics = std::make_shared<ContextStatistics>(
      ContextStatistics::Labels{.context = name, .handle = "0x1", .domain = "test", .transport = "nats"});
  return settings;
}

TEST(NetworkStatistics, TellWhatAnOutageCostsAsTheReceiverIsTold) {
  test_support::NatsServer server;
  Member a(Counted(server.Url(), "a"), false);
  Member b(Counted(server.Url(), "b"));
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  DrainUntil({&a, &b}, "the subscription", [&] { return a.events.size() == 2; });
  EXPECT_EQ(1, ValueOf("network", "a", "connected").number);
  const auto before = ValueOf("network", "a", "batches").Count();
  Publish(*a.transport, *publication, "before");
  DrainUntil({&a, &b}, "the message", [&] { return b.messages == 1; });
  EXPECT_GT(ValueOf("network", "a", "batches").Count(), before);
  EXPECT_GT(ValueOf("network", "a", "batch_bytes").Count(), 0U);
  DrainUntil({&a, &b}, "a round trip", [&] { return ValueOf("network", "a", "round_trip").all->count > 0; });

  server.Kill();
  DrainUntil({&a, &b}, "both to notice", [&] { return !a.Notices().empty() && !b.Notices().empty(); });
  EXPECT_EQ(0, ValueOf("network", "a", "connected").number);
  for (int i = 0; i < 5; ++i) {
    Publish(*a.transport, *publication, "meanwhile");
  }
  EXPECT_EQ(5U, ValueOf("network", "a", "dropped").Count());
  EXPECT_EQ(5U, ValueOf("engine_context", "a", "dropped").Count());
  EXPECT_EQ(0U, ValueOf("network", "a", "reconnects").Count());
  server.Start();
  DrainUntil({&a, &b}, "the loss", [&] { return b.lost == 5; });
  Publish(*a.transport, *publication, "after");
  DrainUntil({&a, &b}, "the next message", [&] { return b.messages == 2; });
  EXPECT_THAT(b.events, testing::ElementsAre("up T", "T: before", "loss T", "T: after"));
  ExpectAccount(b, 7);
  EXPECT_EQ(1U, ValueOf("network", "a", "reconnects").Count());
  EXPECT_EQ(1, ValueOf("network", "a", "connected").number);
}

TEST(NetworkStatistics, CountWhatFindsNoRoomOnEitherSideOfWhichTheReceiverIsTold) {
  const test_support::NatsServer server;
  Member source(Counted(server.Url(), "source"), false);
  NatsSettings small = Counted(server.Url(), "small");
  small.receiveQueueBytes = 50'000;
  Member slow(small);
  const auto dropping = source.transport->Advertise({"D", Pacing::kSource});
  const auto waiting = source.transport->Advertise({"W", Pacing::kReceiver});
  DrainUntil({&source, &slow}, "the subscriptions", [&] { return source.events.size() == 4; });
  const std::string payload(8'000, 'x');
  std::size_t sent = 100;
  while (Publish(*source.transport, *waiting, payload) == SendResult::kSent) {
    ++sent;
  }
  EXPECT_EQ(1U, ValueOf("engine_context", "source", "waits_for_room").Count());
  for (int i = 0; i < 100; ++i) {
    Publish(*source.transport, *dropping, payload);
  }
  DrainUntil({&source}, "what finds no room at a context that stands still",
             [&] { return ValueOf("network", "small", "receive_dropped").Count() > 0; });
  EXPECT_EQ(0U, ValueOf("network", "source", "receive_dropped").Count());
  DrainUntil({&source, &slow}, "an account of all", [&] { return slow.messages + slow.lost == sent; });
}

}  // namespace
}  // namespace engine::transport::nats
