#include <algorithm>
#include <limits>
#include <span>
#include <stdexcept>
#include <thread>

#include "control.h"
#include "measure.h"
#include "payload.h"
#include "processes.h"

namespace compare {

namespace {

using namespace std::chrono_literals;

constexpr auto kPreparingMax = 15s;
constexpr int kPollMs = 20;
constexpr const char* kThere = "t0000001";
constexpr const char* kBack = "t0000002";

class Echo : public Sink {
 public:
  void AnswerThrough(Node& node) { m_node = &node; }
  void Take(const char* data, std::size_t length) override {
    if (m_node != nullptr) {
      m_node->Send(0, data, length);
    }
  }

 private:
  Node* m_node = nullptr;
};

// Sends the next message when the last one is back.
class Pinger : public Sink {
 public:
  Pinger(const RoundTripSettings& settings, Control& control)
      : m_settings(settings), m_control(control), m_payload(settings.payload) {}

  void Start(Node& node) {
    m_node = &node;
    m_measuring = Clock::now() + m_settings.warmUp;
    m_end = m_measuring + m_settings.duration;
    Send(Clock::now());
  }

  void Take(const char* data, std::size_t length) override {
    const Clock::time_point now = Clock::now();
    const auto number = Payload::NumberOf(data, length, m_settings.payload);
    if (!number) {
      throw std::runtime_error("a damaged message came back");
    }
    if (*number == kProbe) {
      m_reached.store(true);
      return;
    }
    if (*number != m_number) {
      throw std::runtime_error("a message came back out of turn");
    }
    if (m_sentAt >= m_measuring && m_control.samples.count < kSamplesMax) {
      m_control.samples.nanoseconds[m_control.samples.count++] = static_cast<std::uint32_t>(
          std::min<std::chrono::nanoseconds::rep>((now - m_sentAt).count(), std::numeric_limits<std::uint32_t>::max()));
    }
    if (now >= m_end) {
      m_control.phase.store(Phase::kOver);
      return;
    }
    Send(Clock::now());
  }

  bool Reached() const { return m_reached.load(); }

 private:
  void Send(Clock::time_point now) {
    m_sentAt = now;
    m_payload.Stamp(++m_number);
    m_node->Send(0, m_payload.Data(), m_payload.Size());
  }

  const RoundTripSettings& m_settings;
  Control& m_control;
  Payload m_payload;
  Node* m_node = nullptr;
  std::uint64_t m_number = kProbe;
  Clock::time_point m_sentAt;
  Clock::time_point m_measuring;
  Clock::time_point m_end;
  std::atomic<bool> m_reached{false};
};

NodeSetup SetupFor(const char* publishes, const char* subscribes, Sink& sink) {
  return {.name = publishes,
          .publishes = {publishes},
          .subscribes = {subscribes},
          .publishers = {subscribes},
          .subscribers = {subscribes},
          .sink = &sink};
}

void PollUntilOver(Node& node, bool spin, const Control& control) {
  while (control.phase.load(std::memory_order_relaxed) != Phase::kOver) {
    node.Poll(spin ? 0 : kPollMs);
  }
}

void RunEcho(const Contender& contender, const RoundTripSettings& settings, Control& control) {
  Echo sink;
  const std::unique_ptr<Node> node = contender.makeNode(SetupFor(kBack, kThere, sink));
  sink.AnswerThrough(*node);
  PollUntilOver(*node, settings.spin, control);
}

void Ping(const Contender& contender, const RoundTripSettings& settings, Control& control) {
  Pinger sink(settings, control);
  const std::unique_ptr<Node> node = contender.makeNode(SetupFor(kThere, kBack, sink));
  Payload probe(settings.payload);
  probe.Stamp(kProbe);
  const Clock::time_point deadline = Clock::now() + kPreparingMax;
  while (!sink.Reached()) {
    if (Clock::now() > deadline) {
      throw std::runtime_error("no probe came back in time");
    }
    node->Send(0, probe.Data(), probe.Size());
    std::this_thread::sleep_for(1ms);
    node->Poll(0);
  }
  sink.Start(*node);
  PollUntilOver(*node, settings.spin, control);
}

}  // namespace

RoundTripResult MeasureRoundTrip(const Contender& contender, const RoundTripSettings& settings) {
  const Shared<Control> control;
  const auto processor = [&](std::size_t number) { return contender.pinned ? ProcessorFor(number) : std::nullopt; };
  Processes processes;
  processes.Start([&] { Ping(contender, settings, *control); }, processor(0));
  processes.Start([&] { RunEcho(contender, settings, *control); }, processor(1));
  processes.Wait(settings.warmUp + settings.duration + kPreparingMax + 15s);

  const std::span samples(control->samples.nanoseconds.data(), control->samples.count);
  if (samples.empty()) {
    throw std::runtime_error("not one round trip in the time given");
  }
  std::sort(samples.begin(), samples.end());
  const auto quantile = [&](double share) {
    return samples[static_cast<std::size_t>(share * static_cast<double>(samples.size() - 1))];
  };
  return {samples.size(), quantile(0.5), quantile(0.99), quantile(0.999), samples.back()};
}

}  // namespace compare
