// Messages that no context would send, from somebody who may publish on the subjects of the domain.
#include "network.h"

namespace engine::transport::nats {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using MessageBytes = std::vector<std::byte>;

std::uint64_t InstanceOf(const Member& member) {
  const std::string& identity = member.transport->Identity();
  return std::stoull(identity.substr(identity.rfind('.') + 1), nullptr, 16);
}

// Of a source named as the topic, of the context that is played.
constexpr std::uint64_t kInstance = 7;
MessageBytes Announcement(const std::string& topic, const wire::Prologue& prologue) {
  const Bytes begin = wire::BytesOf(prologue);
  MessageBytes message(begin.begin(), begin.end());
  wire::AppendValue(
      message,
      wire::Announce{.source = 1, .identityLength = 6, .topicLength = static_cast<std::uint16_t>(topic.size())});
  wire::Append(message, "played");
  wire::Append(message, topic);
  return message;
}
MessageBytes Announcement(const std::string& topic) {
  return Announcement(topic, {.kind = wire::Kind::kAnnounce, .instance = kInstance});
}

// What is in a message: its first bytes up to size of them.
struct Frame {
  std::uint32_t sequence;
  std::uint32_t total;
  std::string content;
};

// Whom nobody forgets because the test is slow.
NatsSettings Patient(const std::string& url) {
  NatsSettings settings = SettingsFor(url);
  settings.peerTimeout = std::chrono::minutes(10);
  return settings;
}

class HostileContext : public testing::Test {
 protected:
  HostileContext() {
    // What the member listens to is known to the server before what is said.
    m_publication = m_member.transport->Advertise({"OWN", Pacing::kSource});
    DrainUntil({&m_member}, "its own source",
               [&] { return m_member.Heard("joined " + m_member.transport->Identity()); });
    m_member.events.clear();
    m_inbox.ListenTo(m_subjects.Inbox(kInstance));
  }

  void Say(const std::string& subject, const MessageBytes& message) const { m_stranger.Say(subject, message); }
  void SayToInbox(const MessageBytes& message) const { Say(m_subjects.Inbox(InstanceOf(m_member)), message); }

  // The member hears of the source and subscribes to it.
  void PlaySource() {
    Say(m_subjects.Source("PLAYED"), Announcement("PLAYED"));
    AwaitSubscription();
    m_member.events.clear();
  }
  // Another one than before.
  void AwaitSubscription() {
    std::uint32_t token = 0;
    DrainUntil({&m_member}, "the subscription", [&] {
      for (const Message& message : m_inbox.Heard()) {
        Bytes bytes = BytesOf(message);
        wire::TakePrologue(bytes);
        wire::TakeText(bytes, wire::Take<wire::Interest>(bytes).nameLength);
        token = wire::Take<wire::Subscription>(bytes).token;
      }
      return token != 0 && token != m_token;
    });
    m_token = token;
  }

  MessageBytes Acceptance(std::uint32_t next, std::uint32_t token) const {
    auto message = wire::Begin(wire::Kind::kAccept, kInstance);
    wire::AppendValue(message, wire::Accept{.progress = {.source = 1, .next = next}, .token = token});
    return message;
  }
  void SayData(const std::vector<Frame>& frames) const {
    auto message = wire::Begin(wire::Kind::kData, kInstance);
    wire::AppendValue(message, wire::Data{.source = 1});
    for (const Frame& frame : frames) {
      wire::AppendValue(message, wire::Frame{.size = static_cast<std::uint32_t>(frame.content.size()),
                                             .total = frame.total,
                                             .sequence = frame.sequence});
      wire::Append(message, frame.content);
    }
    Say(m_subjects.Data("PLAYED", kInstance, 1), message);
  }

  // What the member heard, once it has handled all that was said.
  std::vector<std::string> Heard() {
    // What came together with the first may be handled after it.
    for (int time = 0; time < 2; ++time) {
      const std::string topic = "LAST" + std::to_string(++m_lasts);
      Say(m_subjects.Source(topic), Announcement(topic, {.kind = wire::Kind::kAnnounce, .instance = 1000 + m_lasts}));
      DrainUntil({&m_member}, "the last message", [&] { return m_member.Heard("up " + topic); });
      std::erase(m_member.events, "up " + topic);
    }
    return std::exchange(m_member.events, {});
  }

  const test_support::NatsServer m_server;
  const Subjects m_subjects{"lbm", "test"};
  const Stranger m_stranger{m_server.Url()};
  Stranger m_inbox{m_server.Url()};  // of the context that is played
  Member m_member{Patient(m_server.Url())};
  std::shared_ptr<Publication> m_publication;
  std::uint32_t m_token = 0;  // of the last subscription to the source that is played
  std::uint64_t m_lasts = 0;
};

MessageBytes Response(std::uint64_t request, std::uint32_t total, std::uint32_t offset, const std::string& piece,
                      std::uint64_t instance = kInstance) {
  auto message = wire::Begin(wire::Kind::kResponse, instance);
  wire::AppendValue(message, wire::Response{.request = request, .total = total, .offset = offset, .identityLength = 6});
  wire::Append(message, "played" + piece);
  return message;
}

TEST_F(HostileContext, WhatIsNotOfTheProtocolIsIgnoredAndTold) {
  const std::string source = m_subjects.Source("PLAYED");
  const std::string inbox = m_subjects.Inbox(InstanceOf(m_member));
  MessageBytes longName = wire::Begin(wire::Kind::kAnnounce, kInstance);
  wire::AppendValue(longName, wire::Announce{.source = 1, .identityLength = kNameMax + 1});
  longName.resize(longName.size() + kNameMax + 1);
  MessageBytes cut = Announcement("PLAYED");
  cut.pop_back();
  const wire::Prologue good{.kind = wire::Kind::kAnnounce, .instance = kInstance};
  wire::Prologue version = good;
  ++version.version;
  wire::Prologue magic = good;
  ++magic.magic;
  // Only the first one is told.
  for (const auto& [subject, message, text] :
       {std::tuple(source, MessageBytes(7), "not of this engine's protocol"),
        {source, Announcement("PLAYED", magic), "not of this engine's protocol"},
        {source, Announcement("PLAYED", version), "run the same release"},
        {source, Announcement("PLAYED", {.kind = wire::Kind{99}, .instance = kInstance}), "no known kind"},
        {source, longName, "a name is longer"},
        {source, Announcement(std::string(kNameMax, '%')), "longer than a subject can be"},
        {source, cut, "shorter than it says"},
        {inbox, Response(1, kMessageMax + 1, 0, "piece"), "impossible size"},
        {inbox, Response(1, 10, 11, "piece"), "impossible size"},
        {inbox, Response(1, 10, 6, "piece"), "impossible size"}}) {
    Member fresh(SettingsFor(m_server.Url()));
    const auto publication = fresh.transport->Advertise({"OWN", Pacing::kSource});
    DrainUntil({&fresh}, "its own source", [&] { return fresh.Heard("joined " + fresh.transport->Identity()); });
    Say(subject == inbox ? m_subjects.Inbox(InstanceOf(fresh)) : subject, message);
    DrainUntil({&fresh}, "a notice", [&] { return !fresh.Notices().empty(); });
    EXPECT_THAT(fresh.Notices(), ElementsAre(HasSubstr(text)));
    EXPECT_FALSE(fresh.Heard("up PLAYED"));
  }
}

TEST_F(HostileContext, WhatIsForTheInboxIsNotTakenElsewhere) {
  PlaySource();
  SayToInbox(Acceptance(0, m_token));
  for (const std::string& subject : {m_subjects.Source("PLAYED"), m_subjects.Alive(kInstance)}) {
    Say(subject, Response(1, 5, 0, "piece"));
    Say(subject, Acceptance(1'000, m_token));
    auto data = wire::Begin(wire::Kind::kData, kInstance);
    wire::AppendValue(data, wire::Data{.source = 1});
    Say(subject, data);
  }
  SayData({{0, 3, "one"}});
  EXPECT_THAT(Heard(), ElementsAre("PLAYED: one"));
}

TEST_F(HostileContext, ResponsesAreWholeOrNotGiven) {
  // Another request, a missing piece, no beginning.
  SayToInbox(Response(1, 10, 0, "first"));
  SayToInbox(Response(2, 10, 5, "other"));
  SayToInbox(Response(3, 15, 0, "first"));
  SayToInbox(Response(3, 15, 10, "third"));
  SayToInbox(Response(3, 15, 10, "third"));
  SayToInbox(Response(4, 10, 5, "later", kInstance + 1));
  EXPECT_THAT(Heard(), ElementsAre());
  SayToInbox(Response(5, 10, 0, "first"));
  SayToInbox(Response(5, 10, 5, "other"));
  EXPECT_THAT(Heard(), ElementsAre("response 5 of played: firstother"));
  // More responders that went halfway than are waited for.
  for (std::uint64_t instance = 100; instance < 165; ++instance) {
    SayToInbox(Response(6, 10, 0, "first", instance));
  }
  SayToInbox(Response(6, 10, 5, "other", 100));
  SayToInbox(Response(6, 10, 5, "other", 164));
  EXPECT_THAT(Heard(), ElementsAre("response 6 of played: firstother"));
}

TEST_F(HostileContext, FramesThatMakeNoSenseAreNeverDelivered) {
  PlaySource();
  SayToInbox(Acceptance(0, m_token));
  const struct {
    std::vector<std::vector<Frame>> messages;
    std::vector<std::string> heard;
  } cases[] = {
      {{{{0, 3, "one"}}, {{1, 3, "two"}}}, {"PLAYED: one", "PLAYED: two"}},
      {{{{1, 5, "again"}}, {{0, 5, "again"}}}, {}},
      // What comes in one message with a faulty frame is ignored with it.
      {{{{2, 4, "larger"}, {2, 3, "two"}}, {{3, 3, "ok."}}}, {"loss PLAYED", "PLAYED: ok."}},
      {{{{4, kMessageMax + 1, "x"}, {4, 3, "two"}}, {{5, 3, "ok."}}}, {"loss PLAYED", "PLAYED: ok."}},
      {{{{6, 10, "123456"}, {6, 10, "123456"}, {6, 3, "two"}}, {{7, 3, "ok."}}}, {"loss PLAYED", "PLAYED: ok."}},
      // Fragments of two messages.
      {{{{8, 10, "first"}}, {{9, 10, "aaaaa"}}, {{9, 10, "bbbbb"}}}, {"loss PLAYED", "PLAYED: aaaaabbbbb"}},
      {{{{10, 10, "first"}}, {{10, 12, "aaaaaa"}}, {{10, 12, "bbbbbb"}}}, {"PLAYED: aaaaaabbbbbb"}},
      {{{{11, 10, "first"}}, {{11, 10, "other"}}, {{12, 10, "aaaaa"}}, {{12, 10, "bbbbb"}}},
       {"PLAYED: firstother", "PLAYED: aaaaabbbbb"}},
  };
  for (const auto& one : cases) {
    for (const auto& frames : one.messages) {
      SayData(frames);
    }
    EXPECT_EQ(Heard(), one.heard);
  }
}

TEST_F(HostileContext, ASubscriptionHearsNothingOfTheOnesBefore) {
  PlaySource();
  SayToInbox(Acceptance(0, m_token + 1));
  SayToInbox(Acceptance(0, 0));
  SayData({{0, 3, "one"}});
  EXPECT_THAT(Heard(), ElementsAre()) << "nothing was accepted";
  SayToInbox(Acceptance(0, m_token));
  SayData({{0, 10, "first"}});
  EXPECT_THAT(Heard(), ElementsAre());
  m_member.transport->Unsubscribe(*m_member.sources.at("PLAYED"));
  SayData({{0, 10, "other"}});
  auto alive = wire::Begin(wire::Kind::kAlive, kInstance);
  wire::AppendValue(alive, wire::Progress{.source = 1, .next = 1'000});
  Say(m_subjects.Alive(kInstance), alive);
  EXPECT_THAT(Heard(), ElementsAre());
  const std::uint32_t before = m_token;
  m_member.transport->Subscribe(*m_member.sources.at("PLAYED"));
  AwaitSubscription();
  SayToInbox(Acceptance(5, before));
  SayToInbox(Acceptance(5, m_token));
  SayData({{5, 10, "aaaaa"}});
  SayToInbox(Acceptance(8, before));
  SayData({{5, 10, "bbbbb"}});
  EXPECT_THAT(Heard(), ElementsAre("PLAYED: aaaaabbbbb"));
  SayToInbox(Acceptance(9, m_token));  // it had forgotten the subscription meanwhile
  EXPECT_THAT(Heard(), ElementsAre("loss PLAYED"));
  m_member.onMessage = [&](RemoteSource& source, InboundMessage&) { m_member.transport->Unsubscribe(source); };
  SayData({{9, 3, "one"}, {20, 3, "two"}});
  EXPECT_THAT(Heard(), ElementsAre("PLAYED: one"));
}

TEST_F(HostileContext, SourcesThatNobodyWatchesAreNotHeardOf) {
  Member watcher(Patient(m_server.Url()), true, false);
  watcher.transport->Watch("OWN");
  DrainUntil({&m_member, &watcher}, "what is watched", [&] { return watcher.Heard("up OWN"); });
  watcher.transport->Watch("LAST");
  for (const char* const topic : {"PLAYED", "LAST"}) {
    Say(m_subjects.Inbox(InstanceOf(watcher)),
        Announcement(topic, {.kind = wire::Kind::kAnnounce, .instance = kInstance + m_lasts++}));
  }
  DrainUntil({&watcher}, "the last message", [&] { return watcher.Heard("up LAST"); });
  EXPECT_FALSE(watcher.Heard("up PLAYED"));
}

TEST_F(HostileContext, WhoClaimsToHaveConsumedWhatWasNeverSentHoldsTheSourceUpAllTheSame) {
  const auto paced = m_member.transport->Advertise({"PACED", Pacing::kReceiver});
  DrainUntil({&m_member}, "its own subscription", [&] { return m_member.events.size() == 2; });
  auto interest = wire::Begin(wire::Kind::kInterest, kInstance);
  wire::AppendValue(interest, wire::Interest{.nameLength = 6, .count = 3});
  wire::Append(interest, "played");
  for (const wire::Subscription& subscription :
       {wire::Subscription{.source = 77, .token = 1}, wire::Subscription{.source = paced->Id(), .token = 1},
        wire::Subscription{.source = paced->Id(), .token = 1, .position = std::uint64_t{1} << 60, .accepted = 1}}) {
    wire::AppendValue(interest, subscription);
  }
  SayToInbox(interest);
  DrainUntil({&m_member}, "the subscription", [&] { return m_member.Heard("joined played"); });
  const std::string payload(60'000, 'x');
  std::size_t sent = 0;
  for (int round = 0; round < 3; ++round) {
    while (Publish(*m_member.transport, *paced, payload) == SendResult::kSent) {
      ++sent;
    }
    DrainUntil({&m_member}, "its own messages", [&] { return m_member.messages == sent; });
    Heard();
  }
  EXPECT_LE(sent, NatsSettings().windowBytes / payload.size() + 1);
}

}  // namespace
}  // namespace engine::transport::nats
