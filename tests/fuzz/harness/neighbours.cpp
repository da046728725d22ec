#include "harness/neighbours.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

namespace fuzz {

namespace {

constexpr std::size_t kLarge = 2'000;  // bytes

using transport::Pacing;
using transport::SendResult;

// Reads all of it, so that the sanitizer sees what cannot be read.
void Touch(std::span<const std::byte> bytes) {
  static volatile unsigned sum = 0;
  for (const std::byte byte : bytes) {
    sum = sum + std::to_integer<unsigned>(byte);
  }
}

}  // namespace

Neighbour::Neighbour(std::unique_ptr<transport::Transport> joined) : m_transport(std::move(joined)) {
  m_transport->WatchAll();
}

Neighbour::Good* Neighbour::Find(const transport::RemoteSource& source) {
  const auto found =
      std::find_if(m_good.begin(), m_good.end(), [&](const Good& good) { return good.session == source.Session(); });
  return found == m_good.end() ? nullptr : &*found;
}

bool Neighbour::HasFoundAll() const {
  return std::all_of(m_good.begin(), m_good.end(), [](const Good& good) { return good.up; });
}

void Neighbour::OnSourceUp(const std::shared_ptr<transport::RemoteSource>& source) {
  if (Good* const good = Find(*source)) {
    good->up = true;
  }
  m_transport->Subscribe(*source);
}

void Neighbour::OnSourceDown(const std::shared_ptr<transport::RemoteSource>& source) {
  Require(Find(*source) == nullptr, "a good source stays");
}

void Neighbour::OnMessage(transport::RemoteSource& source, transport::InboundMessage& message) {
  Touch(message.payload);
  if (Good* const good = Find(source)) {
    std::uint32_t number = 0;
    Require(message.payload.size() >= sizeof number, "good messages are whole");
    std::memcpy(&number, message.payload.data(), sizeof number);
    Require(number == good->next && message.sequence == good->next, "good messages come in order, none twice");
    ++good->next;
  }
  if (message.replyPath != nullptr) {
    const iovec answer{const_cast<std::byte*>(message.payload.data()), message.payload.size()};
    m_transport->Respond(*message.replyPath, {&answer, 1}, {});
  }
}

void Neighbour::OnLoss(transport::RemoteSource& source, std::uint32_t, std::uint32_t) {
  Require(Find(source) == nullptr, "no good message is lost");
}

void Neighbour::OnResponse(std::uint64_t requestId, const std::string&, std::span<const std::byte> payload) {
  Touch(payload);
  lastResponse = std::max(lastResponse, requestId);
}

Neighbours::Neighbours(const Join& join, Flat::Freed freed)
    : m_freed(freed), m_victim(join("victim")), m_server(join("server")), m_client(join("client")) {
  m_ofServer.publication = m_server.Context().Advertise({"prices", Pacing::kSource});
  m_victim.Expect(*m_ofServer.publication, 0);
  for (const Pacing pacing : {Pacing::kSource, Pacing::kReceiver}) {
    Sender& sender = m_ofVictim[static_cast<std::size_t>(pacing)];
    sender.publication = m_victim.Context().Advertise({"topic", pacing});
    m_client.Expect(*sender.publication, 0);
  }
  Await("everybody finds everybody", [this] { return AllSubscribed(); });
  for (int i = 0; i < 100; ++i) {  // until buffers have the size that they keep
    Exchange();
  }
}

void Neighbours::Begin() {
  if (!m_flat) {
    m_flat.emplace(m_freed);
  }
  m_flat->Begin();
}

bool Neighbours::AllSubscribed() const {
  const auto subscribed = [](const Neighbour& from, const Sender& sender, const Neighbour& to) {
    return from.Context().HasSubscriber(*sender.publication, to.Context().Identity());
  };
  return subscribed(m_server, m_ofServer, m_victim) &&
         std::all_of(m_ofVictim.begin(), m_ofVictim.end(),
                     [&](const Sender& sender) { return subscribed(m_victim, sender, m_client); });
}

SendResult Neighbours::Send(Neighbour& from, Sender& sender, std::size_t bytes, std::uint64_t request) {
  std::vector<std::byte> content(std::max(bytes, sizeof sender.sent));
  std::memcpy(content.data(), &sender.sent, sizeof sender.sent);
  const iovec piece{content.data(), content.size()};
  const SendResult result =
      from.Context().Publish(*sender.publication, {.pieces = {&piece, 1}, .requestId = request}, {});
  sender.sent += result == SendResult::kSent ? 1 : 0;
  return result;
}

SendResult Neighbours::Publish(Pacing pacing, std::size_t bytes) {
  const SendResult result = Send(m_victim, m_ofVictim[static_cast<std::size_t>(pacing)], bytes);
  // So that there is room for the next one. Large messages go on once the victim hears of that room.
  if (bytes < kLarge) {
    m_client.Drain();
  } else {
    Settle();
  }
  return result;
}

void Neighbours::Settle() {
  std::size_t done = 1;
  while (done != 0) {
    done = m_victim.Drain() + m_server.Drain() + m_client.Drain();
  }
}

void Neighbours::Await(const char* what, const std::function<bool()>& condition, Neighbour* other) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  std::vector<Neighbour*> all{&m_victim, &m_server, &m_client};
  if (other != nullptr) {
    all.push_back(other);
  }
  for (;;) {
    std::size_t done = 0;
    for (Neighbour* const one : all) {
      done += one->Drain();
    }
    if (done != 0) {
      continue;
    }
    if (condition()) {
      return;
    }
    Require(std::chrono::steady_clock::now() < deadline, what);
    bool idle = true;
    std::vector<pollfd> descriptors;
    for (const Neighbour* const one : all) {
      idle = one->Context().Park() && idle;
      descriptors.push_back({one->Context().GetDescriptor(), POLLIN, 0});
    }
    if (idle) {
      ::poll(descriptors.data(), descriptors.size(), 1'000);
    }
    for (const Neighbour* const one : all) {
      one->Context().Unpark();
    }
  }
}

void Neighbours::Welcome(std::unique_ptr<transport::Transport> newcomer) {
  Neighbour guest(std::move(newcomer));
  guest.Expect(*m_ofServer.publication, m_ofServer.sent);
  for (const Sender& sender : m_ofVictim) {
    guest.Expect(*sender.publication, sender.sent);
  }
  Await(
      "a newcomer finds all sources", [&] { return guest.HasFoundAll(); }, &guest);
}

void Neighbours::Exchange() {
  m_victim.takes = true;
  Settle();
  const std::uint64_t request = m_ofServer.sent + 1;
  for (const Pacing pacing : {Pacing::kSource, Pacing::kReceiver}) {
    Require(Publish(pacing, 0) == SendResult::kSent, "the victim can send");
  }
  Require(Send(m_server, m_ofServer, 100, request) == SendResult::kSent, "the server can send");
  Await("messages and responses arrive", [&] {
    const auto client = [&](Pacing pacing) { return m_client.Received(static_cast<std::size_t>(pacing)); };
    const auto sent = [&](Pacing pacing) { return m_ofVictim[static_cast<std::size_t>(pacing)].sent; };
    return m_victim.Received(0) == m_ofServer.sent && m_server.lastResponse == request &&
           client(Pacing::kSource) == sent(Pacing::kSource) && client(Pacing::kReceiver) == sent(Pacing::kReceiver);
  });
  Require(AllSubscribed(), "good subscribers stay");
}

void Neighbours::Check() {
  Exchange();
  m_flat->End();
}

}  // namespace fuzz
