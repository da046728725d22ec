#include <algorithm>
#include <cstdlib>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>

#include "control.h"
#include "measure.h"
#include "payload.h"
#include "processes.h"

namespace compare {

namespace {

using namespace std::chrono_literals;

constexpr auto kPreparingMax = 30s;
constexpr auto kStandstillMax = 2s;
constexpr int kPollMs = 20;

// Each sender has a probe of its own, and numbers its messages from the first number after those.
constexpr std::uint64_t kFirstMessage = kProbe + kSendersMax;

// Messages between two looks at the clock and the window.
constexpr std::uint64_t kStride = 64;

std::string TopicName(char kind, std::size_t number) {
  const std::string digits = std::to_string(number);
  return kind + std::string(kTopicLength - 1 - digits.size(), '0') + digits;
}

std::vector<std::string> Names(char kind, std::size_t count) {
  std::vector<std::string> all;
  for (std::size_t number = 0; number < count; ++number) {
    all.push_back(TopicName(kind, number));
  }
  return all;
}

class Counter : public Sink {
 public:
  Counter(ReceiverCount& count, std::size_t length) : m_count(count), m_length(length) {}

  void Take(const char* data, std::size_t length) override {
    const auto number = Payload::NumberOf(data, length, m_length);
    if (!number) {
      Add(m_count.damaged);
    } else if (*number < kFirstMessage) {
      m_count.probes.fetch_or(std::uint64_t{1} << (*number - kProbe), std::memory_order_relaxed);
    } else {
      Add(m_count.whole);
    }
  }

 private:
  static void Add(std::atomic<std::uint64_t>& count) {
    count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }

  ReceiverCount& m_count;
  const std::size_t m_length;
};

// Topics and names of everybody who takes part.
class Cast {
 public:
  explicit Cast(const RateSettings& settings)
      : m_topics(Names('t', settings.topics)),
        m_idleTopics(Names('i', settings.idlePeers)),
        m_publishers(Names('s', settings.ownNodes ? settings.threads : 1)),
        m_receivers(Names('r', settings.receivers)),
        m_idlePeers(Names('p', settings.idlePeers)) {}

  // One for all topics, or one for each.
  std::vector<NodeSetup> Publishers() const {
    std::vector<NodeSetup> setups;
    for (const std::string& name : m_publishers) {
      setups.push_back({.name = name, .subscribers = m_receivers});
    }
    for (std::size_t topic = 0; topic < m_topics.size(); ++topic) {
      setups[topic % setups.size()].publishes.push_back(m_topics[topic]);
    }
    NodeSetup& first = setups.front();
    first.publishes.insert(first.publishes.end(), m_idleTopics.begin(), m_idleTopics.end());
    first.subscribers.insert(first.subscribers.end(), m_idlePeers.begin(), m_idlePeers.end());
    return setups;
  }
  NodeSetup GetReceiver(std::size_t number, Sink& sink) const {
    return {.name = m_receivers[number], .subscribes = m_topics, .publishers = m_publishers, .sink = &sink};
  }
  NodeSetup IdlePeer(std::size_t number, Sink& sink) const {
    return {
        .name = m_idlePeers[number], .subscribes = {m_idleTopics[number]}, .publishers = m_publishers, .sink = &sink};
  }

 private:
  const std::vector<std::string> m_topics;
  const std::vector<std::string> m_idleTopics;
  const std::vector<std::string> m_publishers;
  const std::vector<std::string> m_receivers;
  const std::vector<std::string> m_idlePeers;
};

// What one thread of the publisher sends, on some topics of a node.
struct alignas(kCacheLine) Sender {
  Node* node;
  std::size_t firstTopic;
  std::size_t topics;
  Payload payload;
  std::size_t topic = firstTopic;  // the next one
  std::uint64_t sent = 0;
};

class PublisherPart {
 public:
  PublisherPart(const Contender& contender, const RateSettings& settings, Control& control)
      : m_settings(settings),
        m_receivers(control.receivers.begin(), settings.receivers),
        m_control(control),
        m_window(contender.window) {
    for (const NodeSetup& setup : Cast(settings).Publishers()) {
      m_nodes.push_back(contender.makeNode(setup));
    }
    const std::size_t topics = settings.topics / settings.threads;
    for (std::size_t number = 0; number < settings.threads; ++number) {
      m_senders.push_back({.node = m_nodes[number % m_nodes.size()].get(),
                           .firstTopic = settings.ownNodes ? 0 : number * topics,
                           .topics = topics,
                           .payload = Payload(settings.payload)});
    }
  }

  void Run() {
    Prepare();
    SendFor(Phase::kWarmUp, m_settings.warmUp);
    SendFor(Phase::kMeasuring, m_settings.duration);
    m_control.sent.store(Sent());
    m_control.phase.store(Phase::kDraining);
    Drain();
    m_control.phase.store(Phase::kOver);
  }

 private:
  // Subscriptions take effect in their order, so a probe on the last topic of each sender shows that all of them have.
  void Prepare() {
    const Clock::time_point deadline = Clock::now() + kPreparingMax;
    const std::uint64_t all = ~std::uint64_t{0} >> (kSendersMax - m_senders.size());
    Payload probe(m_settings.payload);
    while (!EveryReceiver([all](const ReceiverCount& receiver) { return receiver.probes.load() == all; }) ||
           m_control.idlePeersReady.load() < m_settings.idlePeers) {
      if (Clock::now() > deadline) {
        throw std::runtime_error("not all receivers got a probe in time");
      }
      for (std::size_t number = 0; number < m_senders.size(); ++number) {
        const Sender& sender = m_senders[number];
        probe.Stamp(kProbe + number);
        sender.node->Send(sender.firstTopic + sender.topics - 1, probe.Data(), probe.Size());
      }
      probe.Stamp(kProbe);
      for (std::size_t peer = 0; peer < m_settings.idlePeers; ++peer) {
        m_nodes.front()->Send(m_settings.topics + peer, probe.Data(), probe.Size());
      }
      std::this_thread::sleep_for(1ms);
    }
  }

  void SendFor(Phase phase, std::chrono::milliseconds duration) {
    m_control.phase.store(phase);
    const Clock::time_point end = Clock::now() + duration;
    std::vector<std::jthread> others;
    for (std::size_t number = 1; number < m_senders.size(); ++number) {
      others.emplace_back([this, number, end] { SendUntil(end, m_senders[number]); });
    }
    SendUntil(end, m_senders.front());
  }

  void SendUntil(Clock::time_point end, Sender& sender) {
    while (Clock::now() < end) {
      for (std::uint64_t i = 0; i < kStride; ++i) {
        sender.payload.Stamp(kFirstMessage + sender.sent++);
        sender.node->Send(sender.topic, sender.payload.Data(), sender.payload.Size());
        if (m_settings.spread && ++sender.topic == sender.firstTopic + sender.topics) {
          sender.topic = sender.firstTopic;
        }
      }
      while (m_window != 0 && sender.sent > Slowest() + m_window && Clock::now() < end) {
        std::this_thread::yield();
      }
    }
  }

  std::uint64_t Sent() const {
    std::uint64_t sum = 0;
    for (const Sender& sender : m_senders) {
      sum += sender.sent;
    }
    return sum;
  }

  // Until everything has arrived, or nothing more does.
  void Drain() {
    const std::uint64_t sent = Sent();
    std::uint64_t before = Slowest();
    Clock::time_point moved = Clock::now();
    while (Slowest() < sent && Clock::now() < moved + kStandstillMax) {
      std::this_thread::sleep_for(1ms);
      if (const std::uint64_t now = Slowest(); now != before) {
        before = now;
        moved = Clock::now();
      }
    }
  }

  template <class Condition>
  bool EveryReceiver(Condition condition) const {
    return std::all_of(m_receivers.begin(), m_receivers.end(), condition);
  }

  std::uint64_t Slowest() const {
    std::uint64_t least = std::numeric_limits<std::uint64_t>::max();
    for (const ReceiverCount& receiver : m_receivers) {
      least = std::min(least, receiver.whole.load(std::memory_order_relaxed));
    }
    return least;
  }

  const RateSettings& m_settings;
  const std::span<ReceiverCount> m_receivers;
  Control& m_control;
  const std::size_t m_window;
  std::vector<std::unique_ptr<Node>> m_nodes;
  std::vector<Sender> m_senders;
};

void Receive(const Contender& contender, const RateSettings& settings, Control& control, std::size_t number) {
  ReceiverCount& count = control.receivers[number];
  Counter counter(count, settings.payload);
  const std::unique_ptr<Node> node = contender.makeNode(Cast(settings).GetReceiver(number, counter));

  struct Moment {
    Clock::time_point time = Clock::now();
    std::uint64_t whole;
  };
  Moment from{.whole = 0};
  Phase seen = Phase::kPreparing;
  while (seen != Phase::kOver) {
    node->Poll(settings.spin ? 0 : kPollMs);
    const Phase phase = control.phase.load(std::memory_order_relaxed);
    if (phase == seen) {
      continue;
    }
    const Moment now{.whole = count.whole.load(std::memory_order_relaxed)};
    if (phase == Phase::kMeasuring) {
      from = now;
    } else if (seen == Phase::kMeasuring) {
      count.rate =
          static_cast<double>(now.whole - from.whole) / std::chrono::duration<double>(now.time - from.time).count();
    }
    seen = phase;
  }
}

// All of them in one process, which sleeps once they are subscribed. Ends the process.
void Idle(const Contender& contender, const RateSettings& settings, Control& control) {
  struct Peer {
    std::unique_ptr<ReceiverCount> count = std::make_unique<ReceiverCount>();
    std::unique_ptr<Counter> counter;
    std::unique_ptr<Node> node;
  };
  std::vector<Peer> peers(settings.idlePeers);
  for (std::size_t number = 0; number < peers.size(); ++number) {
    Peer& peer = peers[number];
    peer.counter = std::make_unique<Counter>(*peer.count, settings.payload);
    peer.node = contender.makeNode(Cast(settings).IdlePeer(number, *peer.counter));
  }
  for (Peer& peer : peers) {
    while (peer.count->probes.load() == 0) {
      for (Peer& one : peers) {
        one.node->Poll(0);
      }
      std::this_thread::sleep_for(1ms);
    }
    control.idlePeersReady.fetch_add(1);
  }
  while (control.phase.load() != Phase::kOver) {
    std::this_thread::sleep_for(5ms);
  }
  // Without closing the nodes: nng waits for ever when it is to close many sockets that are connected.
  std::_Exit(0);
}

}  // namespace

RateResult MeasureRate(const Contender& contender, const RateSettings& settings) {
  if (settings.threads > 1 && contender.window != 0) {
    throw std::invalid_argument("only one thread can keep to a window");
  }
  const Shared<Control> control;
  const bool pinned = contender.pinned && settings.pinned;
  const auto processor = [&](std::size_t number) { return pinned ? ProcessorFor(number) : std::nullopt; };

  Processes processes;
  processes.Start([&] { PublisherPart(contender, settings, *control).Run(); }, processor(0));
  for (std::size_t number = 0; number < settings.receivers; ++number) {
    processes.Start([&] { Receive(contender, settings, *control, number); }, processor(number + 1));
  }
  if (settings.idlePeers > 0) {
    processes.Start([&] { Idle(contender, settings, *control); });
  }
  processes.Wait(settings.warmUp + settings.duration + kPreparingMax + 15s);

  RateResult result{.sent = control->sent.load()};
  for (std::size_t number = 0; number < settings.receivers; ++number) {
    const ReceiverCount& count = control->receivers[number];
    result.slowest = number == 0 ? count.rate : std::min(result.slowest, count.rate);
    result.all += count.rate;
    result.lost += result.sent - count.whole.load();
  }
  return result;
}

}  // namespace compare
