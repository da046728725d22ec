// What others on a NATS server may send to a context: messages of every kind, whole and damaged, on the subjects that
// it listens to.
#include <nats/nats.h>

#include <array>
#include <map>

#include "harness/input.h"
#include "harness/neighbours.h"
#include "test_support/nats_server.h"
#include "transport/instance.h"
#include "transport/nats/connection.h"
#include "transport/nats/nats_transport.h"
#include "transport/nats/subjects.h"
#include "transport/nats/wire.h"

namespace fuzz {
namespace {

namespace nats = engine::transport::nats;
namespace wire = engine::transport::nats::wire;

constexpr std::uint32_t kSourcesMax = 3;
constexpr std::uint8_t kInstancesMax = 2;

struct Place {
  const test_support::NatsServer server;

  nats::NatsSettings SettingsFor(const std::string& name) const {
    nats::NatsSettings settings;
    settings.server.servers = server.Url();
    settings.domain = "test";
    settings.contextName = name;
    return settings;
  }
};

class NatsNeighbours : public Place, public Neighbours {
 public:
  NatsNeighbours()
      : Neighbours([this](const std::string& name) { return nats::JoinNatsDomain(SettingsFor(name)); },
                   Flat::Freed::kLater) {
    Require(natsConnection_ConnectTo(&m_attacker, server.Url().c_str()) == NATS_OK, "the attacker can connect");
    for (std::uint8_t instance = 0; instance <= kInstancesMax; ++instance) {
      natsSubscription* made = nullptr;
      natsConnection_SubscribeSync(&made, m_attacker, subjects.Inbox(instance).c_str());
      m_inboxes[instance].reset(made);
    }
    const std::string identity = Victim().Context().Identity();
    inbox = subjects.Inbox(0);
    inbox.replace(inbox.rfind('.') + 1, std::string::npos, identity.substr(identity.rfind('.') + 1));
  }
  ~NatsNeighbours() {
    m_inboxes = {};
    natsConnection_Destroy(m_attacker);
  }
  NatsNeighbours(const NatsNeighbours&) = delete;
  NatsNeighbours& operator=(const NatsNeighbours&) = delete;

  void Say(const std::string& subject, std::span<const std::byte> message) {
    natsConnection_Publish(m_attacker, subject.c_str(), message.data(), static_cast<int>(message.size()));
  }
  // Until the victim has handled what was said.
  void Arrive() {
    natsConnection_Flush(m_attacker);
    Exchange();
  }
  // The token of the victim's last subscription to a source of the instance.
  std::uint32_t Token(std::uint8_t instance) {
    while (const nats::Message message = nats::Next(m_inboxes[instance].get())) {
      if (const auto bytes = nats::BytesOf(message); bytes.size() >= sizeof(wire::Subscription)) {
        wire::Subscription last;
        std::memcpy(&last, &bytes[bytes.size() - sizeof last], sizeof last);
        m_tokens[instance] = last.token;
      }
    }
    return m_tokens[instance];
  }

  const nats::Subjects subjects{"lbm", "test"};
  std::string inbox;  // of the victim

 private:
  natsConnection* m_attacker = nullptr;
  std::array<nats::SubscriptionHandle, kInstancesMax + 1> m_inboxes;
  std::array<std::uint32_t, kInstancesMax + 1> m_tokens{};
};

wire::Progress ProgressFrom(Input& input) {
  return {.source = input.Plausible(kSourcesMax),
          .next = input.Plausible(8U),
          .position = input.Plausible(std::uint64_t{200})};
}

void AppendFrames(Input& input, std::vector<std::byte>& message) {
  for (auto frames = input.UpTo<std::uint8_t>(4); frames > 0; --frames) {
    const auto content = input.Bytes(30);
    wire::Frame frame{.size = static_cast<std::uint32_t>(content.size()),
                      .total = static_cast<std::uint32_t>(content.size()),
                      .sequence = input.Plausible(8U),
                      .flags = input.Plausible(3U)};
    if (input.ConsumeBool()) {
      frame.total = input.Plausible(60U);
    }
    wire::AppendValue(message, frame);
    wire::Append(message, content);
  }
}

struct Said {
  std::string subject;
  std::vector<std::byte> message;
};

Said Compose(Input& input, NatsNeighbours& neighbours) {
  const std::uint8_t instance = input.UpTo(kInstancesMax);
  const auto kind = static_cast<wire::Kind>(input.Plausible<std::uint16_t>(9));
  const nats::Subjects& subjects = neighbours.subjects;
  Said said{neighbours.inbox, wire::Begin(kind, instance)};
  switch (kind) {
    case wire::Kind::kAnnounce: {
      const std::string identity = input.Text(8);
      const std::string topic = input.Name("attack");
      said.subject = input.ConsumeBool() ? neighbours.inbox : subjects.Source("attack");
      wire::AppendValue(said.message, wire::Announce{.source = input.Plausible(kSourcesMax),
                                                     .identityLength = static_cast<std::uint16_t>(identity.size()),
                                                     .topicLength = static_cast<std::uint16_t>(topic.size())});
      wire::Append(said.message, identity);
      wire::Append(said.message, topic);
      break;
    }
    case wire::Kind::kGone:
      said.subject = subjects.Source("attack");
      wire::AppendValue(said.message, ProgressFrom(input));
      break;
    case wire::Kind::kWant:
      said.subject = input.ConsumeBool() ? subjects.WantAll() : subjects.Want("topic");
      break;
    case wire::Kind::kInterest: {
      const auto count = input.UpTo<std::uint8_t>(3);
      wire::AppendValue(said.message, wire::Interest{.nameLength = 4, .count = input.Plausible<std::uint32_t>(count)});
      wire::Append(said.message, "name");
      for (std::uint8_t i = 0; i < count; ++i) {
        wire::AppendValue(said.message, wire::Subscription{.source = input.Plausible(kSourcesMax),
                                                           .token = input.Plausible(2U),
                                                           .position = input.Plausible(std::uint64_t{1'000}),
                                                           .accepted = input.UpTo(1U)});
      }
      break;
    }
    case wire::Kind::kAccept:
      wire::AppendValue(said.message,
                        wire::Accept{.progress = ProgressFrom(input),
                                     .token = input.UpTo<std::uint8_t>(7) == 0 ? input.ConsumeIntegral<std::uint32_t>()
                                                                               : neighbours.Token(instance),
                                     .creditBytes = input.Plausible(100U)});
      break;
    case wire::Kind::kAlive:
      said.subject = subjects.Alive(instance);
      for (auto sources = input.UpTo<std::uint8_t>(3); sources > 0; --sources) {
        wire::AppendValue(said.message, ProgressFrom(input));
      }
      break;
    case wire::Kind::kBye:
      said.subject = subjects.Alive(instance);
      break;
    case wire::Kind::kData:
      said.subject = subjects.Data("attack", instance, input.UpTo(kSourcesMax));
      wire::AppendValue(said.message, wire::Data{.position = input.Plausible(std::uint64_t{200})});
      AppendFrames(input, said.message);
      break;
    default: {
      const auto piece = input.Bytes(30);
      wire::AppendValue(said.message, wire::Response{.request = input.Plausible(std::uint64_t{2}),
                                                     .total = input.Plausible(60U),
                                                     .offset = input.Plausible(60U)});
      wire::Append(said.message, piece);
    }
  }
  const auto damage = input.UpTo<std::uint8_t>(15);
  if (damage == 0) {
    input.Damage(said.message);
  } else if (damage == 1) {
    said.message.resize(input.UpTo<std::size_t>(100));
  }
  return said;
}

// So that the victim forgets the attacker.
void SayBye(NatsNeighbours& neighbours) {
  for (std::uint8_t instance = 0; instance <= kInstancesMax; ++instance) {
    neighbours.Say(neighbours.subjects.Alive(instance), wire::Begin(wire::Kind::kBye, instance));
    auto interest = wire::Begin(wire::Kind::kInterest, instance);
    wire::AppendValue(interest, wire::Interest{.count = 2});
    for (const std::uint32_t source : {1U, 2U}) {
      wire::AppendValue(interest, wire::Subscription{.source = source});
    }
    neighbours.Say(neighbours.inbox, interest);
  }
  neighbours.Arrive();
  for (std::uint8_t instance = 0; instance <= kInstancesMax; ++instance) {
    neighbours.Token(instance);  // takes what has come for it
  }
}

void Attack(Input& input, NatsNeighbours& neighbours) {
  for (int steps = 0; input.Left() && steps < 40; ++steps) {
    if (input.UpTo<std::uint8_t>(3) == 0) {
      neighbours.Arrive();
    }
    const Said said = Compose(input, neighbours);
    neighbours.Say(said.subject, said.message);
  }
  SayBye(neighbours);
}

}  // namespace
}  // namespace fuzz

FUZZ_NEIGHBOURS_WITH(fuzz::Attack)
