// Contexts of this engine on a network. Each command prints a line of JSON when it has come so far, and goes on until
// its standard input ends, so that whoever started it can look at the process and at the server meanwhile.
#include <lbm/lbm.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "control.h"
#include "engine_transport.h"
#include "lbm_check.h"
#include "processes.h"
#include "test_support/temporary_directory.h"

namespace {

using compare::Check;
using compare::Clock;
using namespace std::chrono_literals;

constexpr std::size_t kContextsInProcess = 25;
constexpr std::size_t kCommonTopics = 10;
constexpr auto kPatience = 120s;
constexpr auto kSendInterval = 5ms;
constexpr auto kStandstill = 1s;  // a pair without a message for so long does not work

double Seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

void Tell(const nlohmann::json& result) { std::cout << result.dump() << std::endl; }

void AwaitLine() {
  std::string line;
  std::getline(std::cin, line);
}

template <class Condition>
void Await(const char* what, Condition condition) {
  for (const auto deadline = Clock::now() + kPatience; !condition(); std::this_thread::sleep_for(1ms)) {
    if (Clock::now() > deadline) {
      throw std::runtime_error(std::string(what) + " took too long");
    }
  }
}

int Ignore(lbm_rcv_t*, lbm_msg_t*, void*) { return 0; }

// A context with a thread of its own.
class Context {
 public:
  Context() { Check(lbm_context_create(&m_context, nullptr, nullptr, nullptr)); }
  ~Context() {
    for (lbm_rcv_t* receiver : m_receivers) {
      lbm_rcv_delete(receiver);
    }
    for (lbm_src_t* source : m_sources) {
      lbm_src_delete(source);
    }
    lbm_context_delete(m_context);
  }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  lbm_src_t* Publish(const std::string& name) {
    lbm_topic_t* topic = nullptr;
    Check(lbm_src_topic_alloc(&topic, m_context, name.c_str(), nullptr));
    Check(lbm_src_create(&m_sources.emplace_back(), m_context, topic, nullptr, nullptr, nullptr));
    return m_sources.back();
  }

  // found: counts the sources of the topic as they are found; may be null.
  void Subscribe(const std::string& name, lbm_rcv_cb_proc deliver, void* clientd, std::atomic<std::uint64_t>* found) {
    lbm_rcv_topic_attr_t* attributes = nullptr;
    Check(lbm_rcv_topic_attr_create(&attributes));
    if (found != nullptr) {
      const lbm_rcv_src_notification_func_t notify{CountFound, nullptr, found};
      Check(lbm_rcv_topic_attr_setopt(attributes, "source_notification_function", &notify, sizeof notify));
    }
    lbm_topic_t* topic = nullptr;
    Check(lbm_rcv_topic_lookup(&topic, m_context, name.c_str(), attributes));
    Check(lbm_rcv_topic_attr_delete(attributes));
    Check(lbm_rcv_create(&m_receivers.emplace_back(), m_context, topic, deliver, clientd, nullptr));
  }

 private:
  static void* CountFound(const char*, void* clientd) {
    static_cast<std::atomic<std::uint64_t>*>(clientd)->fetch_add(1, std::memory_order_relaxed);
    return nullptr;
  }

  lbm_context_t* m_context = nullptr;
  std::vector<lbm_src_t*> m_sources;
  std::vector<lbm_rcv_t*> m_receivers;
};

using Contexts = std::vector<std::unique_ptr<Context>>;

// Each has a source that nobody wants and a receiver of a topic that nobody has.
void StayIdle(std::size_t count) {
  Contexts contexts;
  for (std::size_t number = 0; number < count; ++number) {
    Context& context = *contexts.emplace_back(std::make_unique<Context>());
    context.Publish("unwanted." + std::to_string(number));
    context.Subscribe("nowhere." + std::to_string(number), Ignore, nullptr, nullptr);
  }
  Tell({{"contexts", count}});
  AwaitLine();
}

struct Discovery {
  std::atomic<std::uint64_t> contexts{0};
  std::atomic<std::uint64_t> found{0};  // by all contexts together
};

// Each context has a source and looks for the common topics. Some of the sources, evenly spread, are of those topics.
void Inhabit(Discovery& discovery, std::size_t first, std::size_t count, std::size_t all) {
  Contexts contexts;
  const std::size_t stride = all / kCommonTopics;
  for (std::size_t number = first; number < first + count; ++number) {
    Context& context = *contexts.emplace_back(std::make_unique<Context>());
    context.Publish(number % stride == 0 ? "common." + std::to_string(number / stride)
                                         : "own." + std::to_string(number));
    for (std::size_t topic = 0; topic < kCommonTopics; ++topic) {
      context.Subscribe("common." + std::to_string(topic), Ignore, nullptr, &discovery.found);
    }
    discovery.contexts.fetch_add(1);
  }
  while (true) {
    std::this_thread::sleep_for(1h);
  }
}

void Discover(std::size_t count) {
  const compare::Shared<Discovery> discovery;
  compare::Processes processes;
  const Clock::time_point start = Clock::now();
  for (std::size_t first = 0; first < count; first += kContextsInProcess) {
    processes.Start([&] { Inhabit(*discovery, first, std::min(kContextsInProcess, count - first), count); });
  }
  Await("making the contexts", [&] {
    processes.ThrowIfAnyEnded();
    return discovery->contexts.load() == count;
  });
  const Clock::time_point made = Clock::now();
  Await("finding all sources", [&] { return discovery->found.load() == count * kCommonTopics; });
  Tell({{"contexts", count},
        {"create_seconds", Seconds(made - start)},
        {"found_seconds", Seconds(Clock::now() - made)}});
  AwaitLine();
}

// A context that publishes and one that receives.
class Pair {
 public:
  explicit Pair(std::size_t number) {
    const std::string topic = "pair." + std::to_string(number);
    m_source = m_publisher.Publish(topic);
    m_subscriber.Subscribe(topic, Deliver, this, nullptr);
  }

  void Send() { Check(lbm_src_send(m_source, "price", 5, 0)); }

  bool Works() const { return SinceLast(Clock::now()) < kStandstill; }
  void BeginMeasuring() { m_measuring.store(true); }
  // Without a message, since BeginMeasuring. Null when it does not work.
  nlohmann::json LongestGap() const { return Works() ? nlohmann::json(m_longest.load()) : nlohmann::json(); }

 private:
  static int Deliver(lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
    if (message->type == LBM_MSG_DATA) {
      auto& self = *static_cast<Pair*>(clientd);
      const Clock::time_point now = Clock::now();
      if (self.m_measuring.load()) {
        self.m_longest.store(std::max(self.m_longest.load(), Seconds(self.SinceLast(now))));
      }
      self.m_last.store(now);
    }
    return 0;
  }
  Clock::duration SinceLast(Clock::time_point now) const { return now - m_last.load(); }

  std::atomic<Clock::time_point> m_last{Clock::time_point()};
  std::atomic<bool> m_measuring{false};
  std::atomic<double> m_longest{0};
  lbm_src_t* m_source = nullptr;
  Context m_publisher;
  Context m_subscriber;
};

// Tells when all pairs work, and after a line of input how long each was cut off in the time that follows.
void SurviveCut(std::size_t count, std::chrono::seconds watched) {
  std::vector<std::unique_ptr<Pair>> pairs;
  for (std::size_t number = 0; number < count; ++number) {
    pairs.push_back(std::make_unique<Pair>(number));
  }
  const std::jthread sender([&](const std::stop_token& stop) {
    for (auto next = Clock::now(); !stop.stop_requested(); std::this_thread::sleep_until(next += kSendInterval)) {
      for (const auto& pair : pairs) {
        pair->Send();
      }
    }
  });
  Await("making the pairs",
        [&] { return std::all_of(pairs.begin(), pairs.end(), [](const auto& pair) { return pair->Works(); }); });
  for (const auto& pair : pairs) {
    pair->BeginMeasuring();
  }
  Tell({{"pairs", count}});
  AwaitLine();
  std::this_thread::sleep_for(watched);
  nlohmann::json gaps = nlohmann::json::array();
  for (const auto& pair : pairs) {
    gaps.push_back(pair->LongestGap());
  }
  Tell({{"gap_seconds", gaps}});
}

void AllowManyDescriptors() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Contexts of the embedded engine on a network; each result is a line of JSON.");
  app.require_subcommand(1);
  std::string transport = "nats";
  std::size_t contexts = 1;
  std::size_t pairs = 50;
  unsigned seconds = 5;
  const CLI::App* const idle = [&] {
    CLI::App* const command = app.add_subcommand("idle", "contexts that nobody talks to");
    command->add_option("--transport", transport, "how they meet");
    command->add_option("--contexts", contexts, "how many");
    return command;
  }();
  const CLI::App* const discovery = [&] {
    CLI::App* const command = app.add_subcommand("discovery", "contexts that look for the same ten topics");
    command->add_option("--contexts", contexts, "how many, at least ten")->required();
    return command;
  }();
  CLI::App* const cut = app.add_subcommand("cut", "pairs of contexts that lose their server");
  cut->add_option("--pairs", pairs, "how many");
  cut->add_option("--seconds", seconds, "how long to watch them after a line of input");
  CLI11_PARSE(app, argc, argv);

  AllowManyDescriptors();
  const test_support::TemporaryDirectory directory;
  compare::UseTransport(directory.Path(), transport);
  if (*idle) {
    StayIdle(contexts);
  } else if (*discovery) {
    Discover(contexts);
  } else {
    SurviveCut(pairs, std::chrono::seconds(seconds));
  }
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
