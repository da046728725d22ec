#include <algorithm>
#include <numeric>

#include "member.h"

namespace engine::transport::host {
namespace {

using testing::ElementsAre;

class Exchange : public testing::Test {
 protected:
  ScratchDirectory m_directory;
};

TEST_F(Exchange, ReachesEverySubscriberOfTheDomainAndTheContextItself) {
  Member a(settingsIn(m_directory, "a"));
  const auto publication = a.transport->advertise({"T", "s1", Pacing::source});
  Member b(settingsIn(m_directory, "b"));
  Member c(settingsIn(m_directory, "c"), false);
  settle({&a, &b, &c});
  EXPECT_EQ(b.sources.at("T")->session(), "s1");
  EXPECT_EQ(publish(*a.transport, *publication, "one"), SendResult::sent);
  EXPECT_EQ(publish(*a.transport, *publication, ""), SendResult::sent);
  settle({&a, &b, &c});
  EXPECT_THAT(a.events, ElementsAre("up T", "joined a", "joined b", "T: one", "T: "));
  EXPECT_THAT(b.events, ElementsAre("up T", "T: one", "T: "));
  EXPECT_THAT(c.events, ElementsAre("up T"));
  EXPECT_THAT(b.sequences, ElementsAre(0, 1));
}

TEST_F(Exchange, SubscribersHearOnlyWhatFollowsTheirSubscription) {
  Member a(settingsIn(m_directory), false);
  const auto publication = a.transport->advertise({"T", "s", Pacing::source});
  publish(*a.transport, *publication, "early");
  Member b(settingsIn(m_directory, "b"));
  settle({&a, &b});
  publish(*a.transport, *publication, "one");
  settle({&a, &b});
  EXPECT_THAT(b.events, ElementsAre("up T", "T: one"));

  // Messages of the first subscription that are still on their way do not count for the second.
  publish(*a.transport, *publication, "stale");
  b.transport->unsubscribe(*b.sources.at("T"));
  b.transport->unsubscribe(*b.sources.at("T"));
  publish(*a.transport, *publication, "stale");
  b.transport->subscribe(*b.sources.at("T"));
  b.transport->subscribe(*b.sources.at("T"));
  settle({&a, &b});
  publish(*a.transport, *publication, "two");
  settle({&a, &b});
  EXPECT_THAT(b.events, ElementsAre("up T", "T: one", "T: two"));
  EXPECT_THAT(a.events, ElementsAre("up T", "joined b", "left b", "joined b"));
}

TEST_F(Exchange, UnsubscribingInsideACallbackHoldsAtOnce) {
  Member a(settingsIn(m_directory), false);
  const auto publication = a.transport->advertise({"T", "s", Pacing::source});
  Member b(settingsIn(m_directory));
  settle({&a, &b});
  b.onMessage = [&](RemoteSource& source, InboundMessage&) { b.transport->unsubscribe(source); };
  publish(*a.transport, *publication, "one");
  publish(*a.transport, *publication, "two");
  settle({&a, &b});
  EXPECT_THAT(b.events, ElementsAre("up T", "T: one"));
}

TEST_F(Exchange, WithdrawingEndsASourceAfterItsMessages) {
  Member a(settingsIn(m_directory), false);
  const auto publication = a.transport->advertise({"T", "s", Pacing::source});
  Member b(settingsIn(m_directory, "b"));
  settle({&a, &b});
  publish(*a.transport, *publication, "one");
  a.transport->withdraw(*publication);
  publish(*a.transport, *publication, "too late");
  const auto successor = a.transport->advertise({"T", "s2", Pacing::source});
  settle({&a, &b});
  publish(*a.transport, *successor, "two");
  a.transport->close(std::chrono::seconds(10));
  settle({&b});
  EXPECT_THAT(b.events, ElementsAre("up T", "T: one", "down T", "up T", "T: two", "down T"));
  EXPECT_TRUE(b.notices.empty());
}

TEST_F(Exchange, RequestsAreAnsweredToTheRequesterAlone) {
  Member a(settingsIn(m_directory));
  Member b(settingsIn(m_directory));
  const auto publication = a.transport->advertise({"T", "s", Pacing::source});
  settle({&a, &b});
  std::shared_ptr<ReplyPath> path;
  b.onMessage = [&](RemoteSource&, InboundMessage& message) { path = message.replyPath; };
  publish(*a.transport, *publication, "plain");
  settle({&a, &b});
  EXPECT_EQ(path, nullptr);
  publish(*a.transport, *publication, "question", false, 77);
  settle({&a, &b});
  ASSERT_NE(path, nullptr);
  const std::string answer(200'000, 'x');
  std::string start = "yes ";
  const iovec pieces[] = {{start.data(), start.size()}, {const_cast<char*>(answer.data()), answer.size()}};
  EXPECT_EQ(b.transport->respond(*path, pieces, false), SendResult::sent);
  EXPECT_EQ(b.transport->respond(*path, {pieces, 1}, false), SendResult::sent);
  settle({&a, &b});
  EXPECT_TRUE(a.heard("response 77: yes " + answer));
  EXPECT_TRUE(a.heard("response 77: yes "));
  ASSERT_THAT(a.responders, ElementsAre(testing::StartsWith("host:"), a.responders.back()));
  EXPECT_TRUE(a.heard("joined " + a.responders.back())) << "the subscriber without a name can be told by its response";
  a.transport->close(std::chrono::milliseconds(0));
  settle({&b});
  EXPECT_EQ(b.transport->respond(*path, pieces, true), SendResult::peerGone);
}

TEST_F(Exchange, ChannelsTravelWithTheirMessages) {
  Member a(settingsIn(m_directory));
  const auto publication = a.transport->advertise({"T", "s", Pacing::source});
  settle({&a});
  std::vector<std::optional<std::uint32_t>> channels;
  a.onMessage = [&](RemoteSource&, InboundMessage& message) { channels.push_back(message.channel); };
  OutboundMessage message;
  message.channel = 0;
  a.transport->publish(*publication, message, false);
  message.channel = 0xffffffff;
  a.transport->publish(*publication, message, false);
  message.channel.reset();
  a.transport->publish(*publication, message, false);
  settle({&a});
  EXPECT_THAT(channels, ElementsAre(0U, 0xffffffffU, std::nullopt));
}

class LargeMessages : public Exchange, public testing::WithParamInterface<Pacing> {};

TEST_P(LargeMessages, ArriveWhole) {
  Member a(settingsIn(m_directory));
  Member b(settingsIn(m_directory));
  const auto publication = a.transport->advertise({"T", "s", GetParam()});
  settle({&a, &b});
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
    EXPECT_EQ(a.transport->publish(*publication, message, false), SendResult::sent);
    settle({&a, &b});
    EXPECT_EQ(publish(*a.transport, *publication, "small"), SendResult::sent);
    settle({&a, &b});
  }
  EXPECT_EQ(whole, 2U);
  EXPECT_EQ(b.messages, 4U);
  EXPECT_EQ(b.lost, 0U);
}

INSTANTIATE_TEST_SUITE_P(Pacing, LargeMessages, testing::Values(Pacing::source, Pacing::receiver));

}  // namespace
}  // namespace engine::transport::host
