#include <algorithm>
#include <numeric>

#include "member.h"
#include "transport/host/wire/frames.h"

namespace engine::transport::host {
namespace {

using testing::ElementsAre;

class Exchange : public testing::Test {
 protected:
  ScratchDirectory m_directory;
};

TEST_F(Exchange, ReachesEverySubscriberOfTheDomainAndTheContextItself) {
  Member a(SettingsIn(m_directory, "a"));
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  Settle({&a});
  Member b(SettingsIn(m_directory, "b"));
  Member c(SettingsIn(m_directory, "c"), false);
  Settle({&a, &b, &c});
  EXPECT_EQ(b.sources.at("T")->Session(), publication->Session());
  EXPECT_THAT(publication->Session(), testing::StartsWith(a.transport->Identity()));
  EXPECT_EQ(Publish(*a.transport, *publication, "one"), SendResult::kSent);
  EXPECT_EQ(Publish(*a.transport, *publication, ""), SendResult::kSent);
  Settle({&a, &b, &c});
  EXPECT_THAT(a.events, ElementsAre("up T", "joined a", "joined b", "T: one", "T: "));
  EXPECT_THAT(b.events, ElementsAre("up T", "T: one", "T: "));
  EXPECT_THAT(c.events, ElementsAre("up T"));
  EXPECT_THAT(b.sequences, ElementsAre(0, 1));
}

TEST_F(Exchange, SubscribersHearOnlyWhatFollowsTheirSubscription) {
  Member a(SettingsIn(m_directory), false);
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  Settle({&a});
  Publish(*a.transport, *publication, "early");
  Member b(SettingsIn(m_directory, "b"));
  Settle({&a, &b});
  Publish(*a.transport, *publication, "one");
  Settle({&a, &b});
  EXPECT_THAT(b.events, ElementsAre("up T", "T: one"));

  // Messages of the first subscription that are still on their way do not count for the second.
  Publish(*a.transport, *publication, "stale");
  b.transport->Unsubscribe(*b.sources.at("T"));
  b.transport->Unsubscribe(*b.sources.at("T"));
  Publish(*a.transport, *publication, "stale");
  b.transport->Subscribe(*b.sources.at("T"));
  b.transport->Subscribe(*b.sources.at("T"));
  Settle({&a, &b});
  Publish(*a.transport, *publication, "two");
  Settle({&a, &b});
  EXPECT_THAT(b.events, ElementsAre("up T", "T: one", "T: two"));
  EXPECT_THAT(a.events, ElementsAre("up T", "joined b", "left b", "joined b"));
}

TEST_F(Exchange, UnsubscribingInsideACallbackHoldsAtOnce) {
  Member a(SettingsIn(m_directory), false);
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  Member b(SettingsIn(m_directory));
  Settle({&a, &b});
  b.onMessage = [&](RemoteSource& source, InboundMessage&) { b.transport->Unsubscribe(source); };
  Publish(*a.transport, *publication, "one");
  Publish(*a.transport, *publication, "two");
  Settle({&a, &b});
  EXPECT_THAT(b.events, ElementsAre("up T", "T: one"));
}

TEST_F(Exchange, WithdrawingEndsASourceAfterItsMessages) {
  Member a(SettingsIn(m_directory), false);
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  Member b(SettingsIn(m_directory, "b"));
  Settle({&a, &b});
  Publish(*a.transport, *publication, "one");
  a.transport->Withdraw(*publication);
  Publish(*a.transport, *publication, "too late");
  const auto successor = a.transport->Advertise({"T", Pacing::kSource});
  Settle({&a, &b});
  Publish(*a.transport, *successor, "two");
  a.transport->Close(std::chrono::seconds(10));
  Settle({&b});
  EXPECT_THAT(b.events, ElementsAre("up T", "T: one", "down T", "up T", "T: two", "down T"));
  EXPECT_TRUE(b.Notices().empty());
}

// Also where a subscriber keeps his subscriptions to them.
TEST_F(Exchange, SourcesThatWereWithdrawnAreForgotten) {
  Member a(SettingsIn(m_directory), false);
  Member b(SettingsIn(m_directory));
  std::vector<std::weak_ptr<Publication>> withdrawn;
  for (int round = 0; round < 500; ++round) {
    const auto publication = a.transport->Advertise({"T", Pacing::kSource});
    Settle({&a, &b});
    a.transport->Withdraw(*publication);
    withdrawn.push_back(publication);
  }
  EXPECT_LT(std::count_if(withdrawn.begin(), withdrawn.end(), [](const auto& one) { return !one.expired(); }), 200);
}

TEST_F(Exchange, RequestsAreAnsweredToTheRequesterAlone) {
  Member a(SettingsIn(m_directory));
  Member b(SettingsIn(m_directory));
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  Settle({&a, &b});
  std::shared_ptr<ReplyPath> path;
  b.onMessage = [&](RemoteSource&, InboundMessage& message) { path = message.replyPath; };
  Publish(*a.transport, *publication, "plain");
  Settle({&a, &b});
  EXPECT_EQ(path, nullptr);
  Publish(*a.transport, *publication, "question", false, 77);
  Settle({&a, &b});
  ASSERT_NE(path, nullptr);
  const std::string answer(200'000, 'x');
  std::string start = "yes ";
  const iovec pieces[] = {{start.data(), start.size()}, {const_cast<char*>(answer.data()), answer.size()}};
  EXPECT_EQ(b.transport->Respond(*path, pieces, {}), SendResult::kSent);
  EXPECT_EQ(b.transport->Respond(*path, {pieces, 1}, {}), SendResult::kSent);
  Settle({&a, &b});
  const std::string response = "response 77 of " + b.transport->Identity() + ": yes ";
  EXPECT_TRUE(a.Heard(response + answer));
  EXPECT_TRUE(a.Heard(response));
  EXPECT_TRUE(a.Heard("joined " + b.transport->Identity()))
      << "a subscriber without a name can be told by its response";
  int taken = 0;
  while (taken < 1000 && b.transport->Respond(*path, pieces, {}) == SendResult::kSent) {
    ++taken;
  }
  EXPECT_LT(taken, 1000) << "they pile up where the requester does not read";
  Settle({&a, &b});
  EXPECT_EQ(b.transport->Respond(*path, pieces, {}), SendResult::kSent);
  a.transport->Close(std::chrono::milliseconds(0));
  Settle({&b});
  EXPECT_EQ(b.transport->Respond(*path, pieces, {true}), SendResult::kPeerGone);
}

TEST_F(Exchange, ChannelsTravelWithTheirMessages) {
  Member a(SettingsIn(m_directory));
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  Settle({&a});
  std::vector<std::optional<std::uint32_t>> channels;
  a.onMessage = [&](RemoteSource&, InboundMessage& message) { channels.push_back(message.channel); };
  const std::vector<std::optional<std::uint32_t>> sent{0U, 0xffffffffU, std::nullopt};
  for (const auto& channel : sent) {
    OutboundMessage message;
    message.channel = channel;
    a.transport->Publish(*publication, message, {});
  }
  Settle({&a});
  EXPECT_EQ(channels, sent);
}

TEST_F(Exchange, ArgumentsThatTheProtocolCannotCarryAreRefused) {
  HostSettings settings = SettingsIn(m_directory, std::string(kNameMax + 1, 'n'));
  EXPECT_THROW(JoinHostDomain(settings), std::invalid_argument);
  Member a(SettingsIn(m_directory));
  EXPECT_THROW(a.transport->Advertise({std::string(kNameMax + 1, 't'), Pacing::kSource}), std::invalid_argument);
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  Settle({&a});
  char byte = 'x';
  const iovec tooLarge{&byte, kMessageMax + 1};
  OutboundMessage message;
  message.pieces = {&tooLarge, 1};
  EXPECT_THROW(a.transport->Publish(*publication, message, {}), std::invalid_argument);
  Publish(*a.transport, *publication, "next");
  Settle({&a});
  EXPECT_THAT(a.sequences, ElementsAre(0));
}

class LargeMessages : public Exchange, public testing::WithParamInterface<Pacing> {};

TEST_P(LargeMessages, ArriveWhole) {
  Member a(SettingsIn(m_directory));
  Member b(SettingsIn(m_directory));
  const auto publication = a.transport->Advertise({"T", GetParam()});
  Settle({&a, &b});
  std::vector<unsigned> content(10'000'000 / sizeof(unsigned));
  std::iota(content.begin(), content.end(), 1U);
  const auto wanted = std::as_bytes(std::span(content));
  std::size_t whole = 0;
  b.onMessage = [&](RemoteSource&, InboundMessage& message) {
    whole += std::equal(message.payload.begin(), message.payload.end(), wanted.begin(), wanted.end()) ? 1 : 0;
  };
  // In one piece, and in more pieces than a system call takes.
  for (const std::size_t count : {std::size_t{1}, std::size_t{5000}}) {
    std::vector<iovec> pieces;
    const std::size_t each = wanted.size() / count;
    for (std::size_t i = 0; i < count; ++i) {
      pieces.push_back({reinterpret_cast<std::byte*>(content.data()) + i * each, each});
      pieces.push_back({nullptr, 0});
    }
    OutboundMessage message;
    message.pieces = pieces;
    EXPECT_EQ(a.transport->Publish(*publication, message, {}), SendResult::kSent);
    Settle({&a, &b});
    EXPECT_EQ(Publish(*a.transport, *publication, "small"), SendResult::kSent);
    Settle({&a, &b});
  }
  EXPECT_EQ(whole, 2U);
  EXPECT_EQ(b.messages, 4U);
  EXPECT_EQ(b.lost, 0U);
}

INSTANTIATE_TEST_SUITE_P(Pacing, LargeMessages, testing::Values(Pacing::kSource, Pacing::kReceiver));

}  // namespace
}  // namespace engine::transport::host
