#include "network.h"
#include "transport/nats/keeper.h"

namespace engine::transport::nats {
namespace {

class Exchange : public testing::Test {
 protected:
  const test_support::NatsServer m_server;
};

TEST_F(Exchange, SendsNothingWithoutASubscriberAndManySmallMessagesTogether) {
  Stranger stranger(m_server.Url());
  stranger.ListenTo("lbm.test.data.>");
  Member a(SettingsFor(m_server.Url()), false);
  const auto publication = a.transport->Advertise({"T", Pacing::kReceiver});
  Publish(*a.transport, *publication, "to nobody");
  EXPECT_TRUE(stranger.Heard().empty());

  Member b(SettingsFor(m_server.Url()));
  DrainUntil({&a, &b}, "the subscription", [&] { return b.Heard("up T") && a.events.size() == 2; });
  constexpr std::size_t kBurst = 10'000;
  for (std::size_t i = 0; i < kBurst; ++i) {
    while (Publish(*a.transport, *publication, "small") != SendResult::kSent) {
      Settle({&a, &b});
    }
  }
  DrainUntil({&a, &b}, "the burst", [&] { return b.messages == kBurst; });
  EXPECT_EQ(b.lost, 0U);
  const std::vector<Message> heard = stranger.Heard();
  EXPECT_LT(heard.size(), kBurst / 10);
  Bytes last = BytesOf(heard.back());
  wire::TakePrologue(last);
  EXPECT_EQ(wire::Take<wire::Data>(last).audience, 1U);
}

TEST(Reconnecting, TakesLongerTheMoreReceiveTheSameButNeverLongerThanOthersWait) {
  using std::chrono::milliseconds;
  EXPECT_EQ(ReconnectSpread(0, milliseconds(10'000)), milliseconds(100));
  EXPECT_EQ(ReconnectSpread(1'000, milliseconds(10'000)), milliseconds(1'000));
  EXPECT_EQ(ReconnectSpread(4'000'000'000, milliseconds(10'000)), milliseconds(2'500));
  EXPECT_EQ(ReconnectSpread(4'000'000'000, milliseconds(600'000)), milliseconds(5'000));
  EXPECT_EQ(ReconnectSpread(4'000'000'000, milliseconds(0)), milliseconds(100));
}

TEST_F(Exchange, KeepsDomainsAndPrefixesApart) {
  Member a(SettingsFor(m_server.Url()), false);
  NatsSettings settings = SettingsFor(m_server.Url());
  settings.domain = "other";
  Member otherDomain(settings);
  settings = SettingsFor(m_server.Url());
  settings.subjectPrefix = "other";
  Member otherPrefix(settings);
  Member same(SettingsFor(m_server.Url()));
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  DrainUntil({&a, &same, &otherDomain, &otherPrefix}, "the source", [&] { return same.Heard("up T"); });
  EXPECT_FALSE(otherDomain.Heard("up T"));
  EXPECT_FALSE(otherPrefix.Heard("up T"));
}

TEST_F(Exchange, ASourceThatWasTakenForGoneIsFoundAndHeardAgain) {
  Member a(SettingsFor(m_server.Url()), false);
  Member b(SettingsFor(m_server.Url()));
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  DrainUntil({&a, &b}, "the subscription", [&] { return a.events.size() == 2; });
  // As if it had been silent for too long: it does not know, and still has the subscription.
  const std::string digits = a.transport->Identity().substr(a.transport->Identity().rfind('.') + 1);
  const std::uint64_t instance = std::stoull(digits, nullptr, 16);
  Stranger(m_server.Url()).Say(Subjects("lbm", "test").Alive(instance), wire::Begin(wire::Kind::kBye, instance));
  DrainUntil({&a, &b}, "the end", [&] { return b.Heard("down T"); });
  DrainUntil({&a, &b}, "its messages again", [&] {
    Publish(*a.transport, *publication, "again");
    return b.Heard("T: again");
  });
  EXPECT_EQ(b.lost, 0U);
}

TEST_F(Exchange, ContextsThatFallSilentAreGone) {
  NatsSettings settings = SettingsFor(m_server.Url());
  settings.peerTimeout = std::chrono::milliseconds(500);
  Member a(settings);
  const auto publication = a.transport->Advertise({"T", Pacing::kReceiver});
  // What it listens to is known to the server before what it says.
  DrainUntil({&a}, "its own source", [&] { return a.Heard("up T"); });
  const Subjects subjects("lbm", "test");
  const Stranger stranger(m_server.Url());
  auto announce = wire::Begin(wire::Kind::kAnnounce, 7);
  wire::AppendValue(announce, wire::Announce{.source = 1, .identityLength = 5, .topicLength = 5});
  wire::Append(announce, "ghostGHOST");
  stranger.Say(subjects.Source("GHOST"), announce);
  DrainUntil({&a}, "the ghost", [&] { return a.Heard("up GHOST"); });
  auto interest = wire::Begin(wire::Kind::kInterest, 7);
  wire::AppendValue(interest, wire::Interest{.nameLength = 5, .count = 1});
  wire::Append(interest, "ghost");
  wire::AppendValue(interest, wire::Subscription{.source = publication->Id(), .token = 1});
  Stranger inbox(m_server.Url());
  inbox.ListenTo(subjects.Inbox(7));
  stranger.Say(subjects.Want("T"), wire::Begin(wire::Kind::kWant, 7));
  std::vector<Message> answers;
  DrainUntil({&a}, "an answer", [&] { return !(answers = inbox.Heard()).empty(); });
  Bytes answer = BytesOf(answers.front());
  stranger.Say(subjects.Inbox(wire::TakePrologue(answer).instance), interest);
  DrainUntil({&a}, "the subscription", [&] { return a.Heard("joined ghost"); });
  // Never consumed, so the window fills, until the subscriber is given up.
  std::string payload(60'000, 'x');
  while (Publish(*a.transport, *publication, payload) == SendResult::kSent) {
  }
  DrainUntil({&a}, "the end of the ghost",
             [&] { return a.Heard("down GHOST") && a.Heard("left ghost") && a.Heard("writable"); });
}

}  // namespace
}  // namespace engine::transport::nats
