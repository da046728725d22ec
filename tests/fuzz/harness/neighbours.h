// A context under attack between a good server and a good client, who must lose nothing whatever the attacker does.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "harness/input.h"
#include "harness/oracle.h"
#include "transport/transport.h"

namespace fuzz {

namespace transport = engine::transport;

// One of the three. It subscribes to everything, reads whatever arrives, and answers requests.
class Neighbour final : public transport::Listener {
 public:
  explicit Neighbour(std::unique_ptr<transport::Transport> joined);

  transport::Transport& Context() const { return *m_transport; }

  // That source never goes, and none of its messages is missing: they are the numbers from next on.
  void Expect(const transport::Publication& publication, std::uint32_t next) {
    m_good.push_back({publication.Session(), next});
  }
  bool HasFoundAll() const;
  std::uint32_t Received(std::size_t source) const { return m_good[source].next; }

  std::size_t Drain() { return m_transport->Drain(*this); }

  std::uint64_t lastResponse = 0;  // to a request of its own
  bool takes = true;               // messages of the attacker's sources that wait for space

  void OnSourceUp(const std::shared_ptr<transport::RemoteSource>& source) override;
  void OnSourceDown(const std::shared_ptr<transport::RemoteSource>& source) override;
  void OnMessage(transport::RemoteSource& source, transport::InboundMessage& message) override;
  bool Takes(transport::RemoteSource& source) override { return takes || Find(source) != nullptr; }
  void OnLoss(transport::RemoteSource& source, std::uint32_t first, std::uint32_t count) override;
  void OnResponse(std::uint64_t requestId, const std::string& responder, std::span<const std::byte> payload) override;
  void OnSubscriberJoined(transport::Publication&, const std::string&) override {}
  void OnSubscriberLeft(transport::Publication&, const std::string&) override {}
  void OnWritable(transport::Publication&) override {}

 private:
  struct Good {
    std::string session;
    std::uint32_t next = 0;
    bool up = false;
  };
  Good* Find(const transport::RemoteSource& source);

  const std::unique_ptr<transport::Transport> m_transport;
  std::vector<Good> m_good;
};

class Neighbours {
 public:
  // Joins as a context of that name.
  using Join = std::function<std::unique_ptr<transport::Transport>(const std::string& name)>;
  explicit Neighbours(const Join& join, Flat::Freed freed = Flat::Freed::kByTheEnd);

  Neighbour& Victim() { return m_victim; }
  // Sends a message of one of the victim's two sources, the ones of either pacing, without waiting.
  transport::SendResult Publish(transport::Pacing pacing, std::size_t bytes);

  // A context that comes finds all sources of the others before it goes.
  void Welcome(std::unique_ptr<transport::Transport> newcomer);

  // Before an input. What is there at the first one is what is to be there after each.
  void Begin();
  // Has everybody handle what has arrived.
  void Settle();
  // Messages, requests and responses still reach everybody, and none was lost.
  void Exchange();
  // After an input, when the attacker is gone: the same, and nothing was left behind.
  void Check();

 private:
  // Drains them, with one more if there is one, until the condition holds.
  void Await(const char* what, const std::function<bool()>& condition, Neighbour* other = nullptr);
  bool AllSubscribed() const;

  struct Sender {
    std::shared_ptr<transport::Publication> publication;
    std::uint32_t sent = 0;
  };
  static transport::SendResult Send(Neighbour& from, Sender& sender, std::size_t bytes, std::uint64_t request = 0);

  const Flat::Freed m_freed;
  std::optional<Flat> m_flat;
  Neighbour m_victim;  // first, so that it is the one that an attacker finds in a directory
  Neighbour m_server;
  Neighbour m_client;
  std::array<Sender, transport::kPacings> m_ofVictim;  // by their pacing
  Sender m_ofServer;
};

// Attacks the same neighbours with each input. The attacker has to be gone when the function returns.
template <typename Kind>
void AttackNeighbours(Input& input, void (*attack)(Input&, Kind&)) {
  static Kind neighbours;
  neighbours.Begin();
  attack(input, neighbours);
  neighbours.Check();
}

}  // namespace fuzz

// The fuzzer's entry, for such a function.
#define FUZZ_NEIGHBOURS_WITH(function) FUZZ_WITH([](fuzz::Input& one) { fuzz::AttackNeighbours(one, function); })
