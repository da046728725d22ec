#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <ctime>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "control.h"
#include "histogram.h"
#include "measure.h"
#include "payload.h"
#include "processes.h"
#include "zq/posix/error.h"

namespace compare {

namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

constexpr auto kPreparingMax = 15s;
constexpr auto kStandstillMax = 300ms;
constexpr int kPollMs = 20;
constexpr const char* kTopic = "t0000001";
constexpr int kSettlingPart = 4;  // of the duration, and before it

// A wait for the next message that is longer than this begins with sleep, so that a publisher at a low rate leaves its
// processor to the library's threads; the rest, in which a timer that is late would be seen, it spins.
constexpr auto kSleepFrom = 400us;
constexpr auto kSpin = 200us;
// Between two looks at the clock without any work the processor was taken away when it took longer.
constexpr auto kLookMax = 1us;

// p99.99 of fewer would be that of ten messages or less.
constexpr std::uint64_t kCountForP9999 = 100'000;
constexpr int kPointsPerDecade = 4;  // of the curve

constexpr bool EveryBucketIsNarrowAndItsOwn() {
  for (std::size_t bucket = 0; bucket < Histogram::kBuckets; ++bucket) {
    const std::uint64_t least = Histogram::LeastOf(bucket);
    const std::uint64_t next = Histogram::LeastOf(bucket + 1);
    if (Histogram::BucketOf(least) != bucket || Histogram::BucketOf(next - 1) != bucket ||
        (next - least > 1 && (next - least) * 100 > least)) {
      return false;
    }
  }
  return Histogram::BucketOf(Histogram::kLongest) == Histogram::kBuckets - 1;
}
static_assert(EveryBucketIsNarrowAndItsOwn());

// What a process used while messages were counted.
struct Usage {
  nanoseconds processor{0};
  nanoseconds time{0};

  double Percent() const {
    return time > 0ns ? 100.0 * static_cast<double>(processor.count()) / static_cast<double>(time.count()) : 0;
  }
};

struct LoadControl {
  alignas(kCacheLine) std::atomic<Phase> phase{Phase::kPreparing};
  std::atomic<std::uint64_t> firstCounted{~std::uint64_t{0}};  // the number of a message

  alignas(kCacheLine) std::atomic<bool> ready{false};  // the receiver has got a probe
  std::atomic<std::uint64_t> arrived{0};               // all but probes
  alignas(kCacheLine) Histogram latency;               // of the messages that count, by the receiver
  Usage receiver;

  alignas(kCacheLine) Histogram lateness;  // of the publisher, of each message that counts
  std::uint64_t sent = 0;                  // messages that count
  std::uint64_t unsent = 0;                // that were due and left when the time was over
  Usage publisher;
  Usage server;
};

// The processor time of a process from construction on.
class Meter {
 public:
  explicit Meter(clockid_t process) : m_process(process), m_before(ProcessorTime()) {}

  Usage Read() const { return {ProcessorTime() - m_before, Clock::now() - m_start}; }

 private:
  nanoseconds ProcessorTime() const {
    timespec time{};
    if (::clock_gettime(m_process, &time) != 0) {
      zq::posix::ThrowErrno("cannot read the processor time of a process");
    }
    return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
  }

  const clockid_t m_process;
  const Clock::time_point m_start = Clock::now();
  const nanoseconds m_before;
};

Meter MeterOf(pid_t process) {
  clockid_t clock{};
  if (const int error = ::clock_getcpuclockid(process, &clock); error != 0) {
    zq::posix::ThrowError(error, "cannot find the processor time of process " + std::to_string(process));
  }
  return Meter(clock);
}

class Timekeeper : public Sink {
 public:
  Timekeeper(LoadControl& control, std::size_t length) : m_control(control), m_length(length) {}

  void Take(const char* data, std::size_t length) override {
    const Clock::time_point now = Clock::now();
    const auto number = Payload::NumberOf(data, length, m_length);
    if (!number) {
      return;
    }
    if (*number == kProbe) {
      m_control.ready.store(true, std::memory_order_relaxed);
      return;
    }
    if (*number >= m_control.firstCounted.load(std::memory_order_relaxed)) {
      m_control.latency.Add((now.time_since_epoch() - Payload::DueOf(data)).count());
    }
    m_control.arrived.store(m_control.arrived.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }

 private:
  LoadControl& m_control;
  const std::size_t m_length;
};

// Waits by the clock.
class Pacer {
 public:
  // Timers of this thread alone, which has to be the one that waits, come as exactly as they can.
  Pacer() { ::prctl(PR_SET_TIMERSLACK, 1); }

  // Returns what the time is then.
  Clock::time_point Await(Clock::time_point due) {
    Clock::time_point now = Clock::now();
    if (due - now > kSleepFrom) {
      const nanoseconds until = (due - kSpin).time_since_epoch();
      const timespec time{until / 1s, (until % 1s).count()};
      ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
      now = Clock::now();
    }
    while (now < due) {
      const Clock::time_point next = Clock::now();
      if (next - now < kLookMax) {
        m_spun += next - now;
      }
      now = next;
    }
    return now;
  }

  // Processor time that went into waiting.
  nanoseconds Spun() const { return m_spun; }

 private:
  nanoseconds m_spun{0};
};

class OpenLoop {
 public:
  OpenLoop(const Contender& contender, const LoadSettings& settings, LoadControl& control)
      : m_settings(settings),
        m_control(control),
        m_server(contender.server),
        m_node(contender.makeNode({.name = "publisher", .publishes = {kTopic}, .subscribers = {"receiver"}})),
        m_payload(settings.payload) {}

  void Run() {
    Prepare();
    SendByTheClock();
    Drain();
    m_control.phase.store(Phase::kOver);
  }

 private:
  void Prepare() {
    const Clock::time_point deadline = Clock::now() + kPreparingMax;
    m_payload.Stamp(kProbe);
    while (!m_control.ready.load()) {
      if (Clock::now() > deadline) {
        throw std::runtime_error("the receiver did not get a probe in time");
      }
      m_node->Send(0, m_payload.Data(), m_payload.Size());
      std::this_thread::sleep_for(1ms);
    }
  }

  // When the message is due, from the beginning of all. The first of a burst has the time of all of it.
  nanoseconds DueTime(std::uint64_t message) const {
    return nanoseconds((message - message % m_settings.burst) * nanoseconds(1s).count() / m_settings.rate);
  }

  // Until the time is over, even if messages are left that were due: whoever does not hold the rate would else go on
  // for a multiple of it.
  void SendByTheClock() {
    Pacer pacer;
    const Clock::time_point start = Clock::now() + 1ms;
    const Clock::time_point counting = start + m_settings.duration / kSettlingPart;
    const Clock::time_point end = counting + m_settings.duration;
    const auto sendUntil = [&](Clock::time_point time, bool counted) {
      while (true) {
        const Clock::time_point due = start + DueTime(m_sent);
        const Clock::time_point now = pacer.Await(std::min(due, time));
        if (now >= time) {
          return;
        }
        m_payload.Stamp(++m_sent);
        m_payload.StampDue(due.time_since_epoch());
        m_node->Send(0, m_payload.Data(), m_payload.Size());
        if (counted) {
          m_control.lateness.Add((now - due).count());
        }
      }
    };
    m_control.phase.store(Phase::kWarmUp);
    sendUntil(counting, false);

    const std::uint64_t before = m_sent;
    const nanoseconds spunBefore = pacer.Spun();
    m_control.firstCounted.store(m_sent + 1);
    m_control.phase.store(Phase::kMeasuring);
    const Meter publisher(CLOCK_PROCESS_CPUTIME_ID);
    const std::optional<Meter> server = m_server == 0 ? std::nullopt : std::optional(MeterOf(m_server));
    sendUntil(end, true);
    m_control.publisher = publisher.Read();
    m_control.publisher.processor -= pacer.Spun() - spunBefore;
    if (server) {
      m_control.server = server->Read();
    }
    m_control.phase.store(Phase::kDraining);
    m_control.sent = m_sent - before;
    for (std::uint64_t message = m_sent; start + DueTime(message) < end; ++message) {
      ++m_control.unsent;
    }
  }

  // Until everything has arrived, or nothing more does.
  void Drain() {
    std::uint64_t before = m_control.arrived.load();
    Clock::time_point moved = Clock::now();
    while (before < m_sent && Clock::now() < moved + kStandstillMax) {
      std::this_thread::sleep_for(1ms);
      if (const std::uint64_t now = m_control.arrived.load(); now != before) {
        before = now;
        moved = Clock::now();
      }
    }
  }

  const LoadSettings& m_settings;
  LoadControl& m_control;
  const pid_t m_server;
  const std::unique_ptr<Node> m_node;
  Payload m_payload;
  std::uint64_t m_sent = 0;
};

void ReceiveLoad(const Contender& contender, const LoadSettings& settings, LoadControl& control) {
  Timekeeper sink(control, settings.payload);
  const std::unique_ptr<Node> node =
      contender.makeNode({.name = "receiver", .subscribes = {kTopic}, .publishers = {"publisher"}, .sink = &sink});
  std::optional<Meter> meter;
  Phase seen = Phase::kPreparing;
  while (seen != Phase::kOver) {
    node->Poll(settings.spin ? 0 : kPollMs);
    const Phase phase = control.phase.load(std::memory_order_relaxed);
    if (phase == seen) {
      continue;
    }
    if (phase == Phase::kMeasuring) {
      meter.emplace(CLOCK_PROCESS_CPUTIME_ID);
    } else if (seen == Phase::kMeasuring) {
      control.receiver = meter->Read();
    }
    seen = phase;
  }
}

}  // namespace

LoadResult MeasureLoad(const Contender& contender, const LoadSettings& settings) {
  if (settings.payload < kPayloadWithTimeMin) {
    throw std::invalid_argument("a message with a time has at least " + std::to_string(kPayloadWithTimeMin) + " bytes");
  }
  const Shared<LoadControl> control;
  const auto processor = [&](std::size_t number) { return contender.pinned ? ProcessorFor(number) : std::nullopt; };
  Processes processes;
  processes.Start([&] { OpenLoop(contender, settings, *control).Run(); }, processor(0));
  processes.Start([&] { ReceiveLoad(contender, settings, *control); }, processor(1));
  processes.Wait(2 * settings.duration + kPreparingMax + 15s);

  const Histogram& latency = control->latency;
  if (latency.Count() == 0) {
    throw std::runtime_error("not one message arrived in the time given");
  }
  LoadResult result{
      .sent = control->sent,
      .received = latency.Count(),
      .unsent = control->unsent,
      .rate = static_cast<double>(control->sent) / std::chrono::duration<double>(settings.duration).count(),
      .p50 = latency.Quantile(0.5),
      .p90 = latency.Quantile(0.9),
      .p99 = latency.Quantile(0.99),
      .p999 = latency.Quantile(0.999),
      .max = latency.Greatest(),
      .lateP50 = control->lateness.Quantile(0.5),
      .lateP99 = control->lateness.Quantile(0.99),
      .publisherPercent = control->publisher.Percent(),
      .receiverPercent = control->receiver.Percent()};
  if (latency.Count() >= kCountForP9999) {
    result.p9999 = latency.Quantile(0.9999);
  }
  if (contender.server != 0) {
    result.serverPercent = control->server.Percent();
  }
  // Ten messages at least took longer than the last point says.
  const double oneInMax = static_cast<double>(latency.Count()) / 10;
  for (double point = 0, oneIn = 1; oneIn <= oneInMax; oneIn = std::pow(10, ++point / kPointsPerDecade)) {
    result.curve.emplace_back(oneIn, latency.Quantile(1 - 1 / oneIn));
  }
  return result;
}

}  // namespace compare
