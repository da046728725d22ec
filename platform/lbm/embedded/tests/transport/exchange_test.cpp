#include <algorithm>

#include "member.h"
#include "transport/host/wire/frames.h"

namespace engine::transport::host {
namespace {

using testing::ElementsAre;

class Exchange : public testing::Test {
 protected:
  ScratchDirectory m_directory;
};

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
  EXPECT_TRUE(a.Heard("joined " + b.transport->Identity())) << "it has no name";
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

TEST_F(Exchange, NamesThatTheProtocolCannotCarryAreRefused) {
  HostSettings settings = SettingsIn(m_directory, std::string(kNameMax + 1, 'n'));
  EXPECT_THROW(JoinHostDomain(settings), std::invalid_argument);
  Member a(SettingsIn(m_directory));
  EXPECT_THROW(a.transport->Advertise({std::string(kNameMax + 1, 't'), Pacing::kSource}), std::invalid_argument);
}

}  // namespace
}  // namespace engine::transport::host
