#include <atomic>
#include <thread>

#include "../transport/member.h"
#include "network.h"
#include "transport/combined/combined_transport.h"
#include "transport/host/link/runtime_directory.h"

namespace engine::transport::combined {
namespace {

// A context that meets those of its directory there, and others on the network.
class Member : public Witness {
 public:
  Member(const std::string& directory, const std::string& url)
      : Witness([&](const WarningHandler& warn) {
          host::HostSettings near;
          near.runtimeDirectory = directory;
          near.domain = "test";
          near.warn = warn;
          auto host = host::JoinHostDomain(near);
          nats::NatsSettings far = nats::SettingsFor(url);
          far.identity = host->Identity();
          far.place = host::PlaceOf(directory, "test");
          far.warn = warn;
          return Combine(std::move(host), nats::JoinNatsDomain(far));
        }) {}
};

class Combined : public testing::Test {
 protected:
  // A source of the first context to which all three have subscribed.
  std::shared_ptr<Publication> Advertise(Pacing pacing) {
    auto publication = m_a.transport->Advertise({"T", pacing});
    DrainUntil(m_all, "all three subscriptions", [&] { return EventsThatBegin("joined") == 3; });
    return publication;
  }
  std::size_t EventsThatBegin(const char* text) const {
    return static_cast<std::size_t>(std::count_if(m_a.events.begin(), m_a.events.end(),
                                                  [=](const auto& event) { return event.starts_with(text); }));
  }

  const test_support::NatsServer m_server;
  const host::ScratchDirectory m_here{};
  const host::ScratchDirectory m_there{};
  Member m_a{m_here.Path(), m_server.Url()};
  Member m_near{m_here.Path(), m_server.Url()};
  Member m_far{m_there.Path(), m_server.Url()};
  const std::vector<Witness*> m_all{&m_a, &m_near, &m_far};
};

TEST_F(Combined, EachSourceIsSeenOnceAndItsMessagesArriveOnceOnBothWays) {
  const auto publication = Advertise(Pacing::kSource);
  EXPECT_EQ(m_near.sources.at("T")->Session(), publication->Session());
  EXPECT_EQ(m_far.sources.at("T")->Session(), publication->Session());
  std::size_t answered = 0;
  const auto answer = [&](Witness& member) {
    return [&](RemoteSource&, InboundMessage& message) {
      if (message.replyPath != nullptr) {
        EXPECT_EQ(member.transport->Respond(*message.replyPath, {}, {}), SendResult::kSent);
        ++answered;
      }
    };
  };
  m_near.onMessage = answer(m_near);
  m_far.onMessage = answer(m_far);
  constexpr std::size_t kMessages = 1'000;
  for (std::size_t i = 0; i < kMessages; ++i) {
    ASSERT_EQ(Publish(*m_a.transport, *publication, "x", false, i + 1), SendResult::kSent);
  }
  DrainUntil(m_all, "all messages",
             [&] { return m_a.messages == kMessages && m_near.messages == kMessages && m_far.messages == kMessages; });
  DrainUntil(m_all, "all responses", [&] { return EventsThatBegin("response") == answered; });
  EXPECT_EQ(answered, 2 * kMessages);
  m_a.transport->Withdraw(*publication);
  DrainUntil(m_all, "the end", [&] { return m_a.Heard("down T") && m_near.Heard("down T") && m_far.Heard("down T"); });
  for (const Witness* member : {&m_a, &m_near, &m_far}) {
    EXPECT_EQ(std::count(member->events.begin(), member->events.end(), "up T"), 1);
    EXPECT_EQ(member->lost, 0U);
  }
}

TEST_F(Combined, ASendThatEitherWayCannotTakeGoesNeither) {
  const auto publication = Advertise(Pacing::kReceiver);
  std::size_t sent = 0;
  for (int round = 0; round < 3; ++round) {
    while (Publish(*m_a.transport, *publication, std::string(10'000, 'x')) == SendResult::kSent) {
      ++sent;
    }
    m_a.events.clear();
    DrainUntil(m_all, "room", [&] { return m_a.Heard("writable"); });
  }
  DrainUntil(m_all, "all messages",
             [&] { return m_a.messages == sent && m_near.messages == sent && m_far.messages == sent; });
  EXPECT_EQ(m_far.lost, 0U);
}

TEST_F(Combined, ASendFromInsideADrainNeverWaitsAndOneFromOutsideLooksForRoomItself) {
  const auto publication = Advertise(Pacing::kReceiver);
  const std::string payload(10'000, 'x');
  std::size_t sent = 0;
  bool refused = false;
  m_a.onMessage = [&](RemoteSource&, InboundMessage&) {
    // Nobody else takes anything in meanwhile.
    while (!refused) {
      refused = Publish(*m_a.transport, *publication, payload, true) == SendResult::kWouldBlock;
      sent += refused ? 0 : 1;
    }
  };
  ASSERT_EQ(Publish(*m_a.transport, *publication, payload), SendResult::kSent);
  ++sent;
  DrainUntil({&m_a}, "a refusal", [&] { return refused; });

  std::atomic<bool> done{false};
  std::jthread others([&] { DrainUntil({&m_near, &m_far}, "the last send", [&] { return done.load(); }); });
  for (int i = 0; i < 500; ++i) {
    EXPECT_EQ(Publish(*m_a.transport, *publication, payload, true), SendResult::kSent);
    ++sent;
    m_a.transport->DrainMemory(m_a);
  }
  done = true;
  // Wakes the others.
  const auto last = m_a.transport->Advertise({"LAST", Pacing::kSource});
  others.join();
  DrainUntil(m_all, "all messages", [&] { return m_near.messages == sent && m_far.messages == sent; });
}

}  // namespace
}  // namespace engine::transport::combined
