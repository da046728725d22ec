// A context for the tests of transports, which writes down what its listener hears.
#pragma once

#include <gmock/gmock.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "transport/transport.h"
#include "transport/warnings.h"

namespace engine::transport {

inline std::string TextOf(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

inline SendResult Publish(Transport& transport, Publication& publication, std::string text, bool block = false,
                          std::uint64_t request = 0) {
  const iovec piece{text.data(), text.size()};
  OutboundMessage message;
  message.pieces = {&piece, 1};
  message.requestId = request;
  return transport.Publish(publication, message, {block});
}

class Witness : public Listener {
 public:
  using Join = std::function<std::unique_ptr<Transport>(const WarningHandler& warn)>;

  // watchesAll: wants to hear of all sources.
  explicit Witness(const Join& join, bool subscribes = true, bool watchesAll = true) : m_subscribes(subscribes) {
    transport = join([told = m_told](const std::string& text) {
      const std::lock_guard lock(told->mutex);
      told->texts.push_back(text);
    });
    if (watchesAll) {
      transport->WatchAll();
      Drain();  // to be linked to those that are there
    }
  }

  void OnSourceUp(const std::shared_ptr<RemoteSource>& source) override {
    Hear("up " + source->Topic());
    sources[source->Topic()] = source;
    if (m_subscribes) {
      transport->Subscribe(*source);
    }
  }
  void OnSourceDown(const std::shared_ptr<RemoteSource>& source) override { Hear("down " + source->Topic()); }
  void OnMessage(RemoteSource& source, InboundMessage& message) override {
    ++messages;
    sequences.push_back(message.sequence);
    if (message.payload.size() < 100) {
      Hear(source.Topic() + ": " + TextOf(message.payload));
    }
    if (onMessage) {
      onMessage(source, message);
    }
  }
  void OnLoss(RemoteSource& source, std::uint32_t first, std::uint32_t count) override {
    lost += count;
    longestLoss = std::max<std::size_t>(longestLoss, count);
    for (std::uint32_t i = 0; i < std::min(count, kLossesNoted); ++i) {
      sequences.push_back(first + i);
    }
    Hear("loss " + source.Topic());
    if (onLoss) {
      onLoss(source);
    }
  }
  void OnResponse(std::uint64_t requestId, const std::string& responder, std::span<const std::byte> payload) override {
    Hear("response " + std::to_string(requestId) + " of " + responder + ": " + TextOf(payload));
  }
  void OnSubscriberJoined(Publication&, const std::string& name) override { Hear("joined " + name); }
  void OnSubscriberLeft(Publication&, const std::string& name) override { Hear("left " + name); }
  void OnWritable(Publication&) override { Hear("writable"); }

  std::size_t Drain() { return transport->Drain(*this); }
  // What operators were told, on whatever thread.
  std::vector<std::string> Notices() const {
    const std::lock_guard lock(m_told->mutex);
    return m_told->texts;
  }
  bool Heard(const std::string& event) const { return std::find(events.begin(), events.end(), event) != events.end(); }

  std::unique_ptr<Transport> transport;
  std::vector<std::string> events;
  std::map<std::string, std::shared_ptr<RemoteSource>> sources;  // by topic
  std::vector<std::uint32_t> sequences;                          // of what arrived or was lost
  std::size_t messages = 0;
  std::size_t lost = 0;
  std::size_t longestLoss = 0;
  std::function<void(RemoteSource&, InboundMessage&)> onMessage;
  std::function<void(RemoteSource&)> onLoss;

 private:
  static constexpr std::uint32_t kLossesNoted = 1'000'000;  // a faulty peer may tell of billions

  void Hear(const std::string& event) { events.push_back(event); }

  const bool m_subscribes;
  // A thread of the transport may live on for a moment.
  struct Told {
    std::mutex mutex;
    std::vector<std::string> texts;  // guarded by mutex
  };
  const std::shared_ptr<Told> m_told = std::make_shared<Told>();
};

// Every message from the first on, so many, arrived or was told as lost, in order, none twice.
inline void ExpectAccount(const Witness& member, std::size_t count, std::uint32_t first = 0) {
  ASSERT_EQ(member.sequences.size(), count);
  for (std::size_t i = 0; i < count; ++i) {
    ASSERT_EQ(member.sequences[i], first + static_cast<std::uint32_t>(i));
  }
}

// Drains the members until the condition holds; a failure of the test if it does not within a time.
inline void DrainUntil(const std::vector<Witness*>& members, const std::string& what,
                       const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    std::size_t done = 0;
    for (Witness* member : members) {
      done += member->Drain();
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      FAIL() << "waited in vain for: " << what;
    }
    if (done == 0 && !condition()) {
      std::vector<pollfd> descriptors;
      bool nothing = true;
      for (Witness* member : members) {
        nothing = nothing && member->transport->Park();
        descriptors.push_back({member->transport->GetDescriptor(), POLLIN, 0});
      }
      if (nothing) {
        ::poll(descriptors.data(), descriptors.size(), static_cast<int>(left.count()));
      }
      for (Witness* member : members) {
        member->transport->Unpark();
      }
    }
  }
}

// On a thread for each of them sends messages of publications of one context, and waits for room. The subscriber hears
// each source in order, and all of it. drained: the contexts that take in what there is meanwhile.
inline void ExpectOrderAmongThreads(Transport& sending, const std::vector<Publication*>& publications,
                                    Witness& subscriber, const std::vector<Witness*>& drained) {
  constexpr std::size_t kEach = 1000;
  std::map<std::string, std::uint32_t> next;
  subscriber.onMessage = [&](RemoteSource& source, InboundMessage& message) {
    EXPECT_EQ(message.sequence, next[source.Topic()]++) << source.Topic();
  };
  std::vector<std::jthread> threads;
  threads.reserve(publications.size());
  for (Publication* const publication : publications) {
    threads.emplace_back([&sending, publication] {
      for (std::size_t i = 0; i < kEach; ++i) {
        EXPECT_EQ(Publish(sending, *publication, std::string(8'000, 'x'), true), SendResult::kSent);
      }
    });
  }
  DrainUntil(drained, "all messages", [&] { return subscriber.messages == publications.size() * kEach; });
  EXPECT_EQ(subscriber.lost, 0U);
  subscriber.onMessage = nullptr;
}

// Drains the members until none has anything to do.
inline void Settle(const std::vector<Witness*>& members) {
  std::size_t done = 1;
  while (done != 0) {
    done = 0;
    for (Witness* member : members) {
      done += member->Drain();
    }
  }
}

}  // namespace engine::transport
