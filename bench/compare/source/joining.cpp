// How long a context takes to join a domain that is already there, and what a large domain costs. Prints one line of
// JSON. Stops building, and says why, before it takes too much of the machine.
#include <dirent.h>
#include <lbm/lbm.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>

#include "control.h"
#include "lbm_check.h"
#include "processes.h"
#include "test_support/temporary_directory.h"

namespace {

using compare::Check;
using compare::Clock;
using namespace std::chrono_literals;

constexpr std::size_t kContextsInProcess = 10;
constexpr std::size_t kJoins = 5;
// Descriptors of a context besides its links, and of a process besides its contexts, with room to spare.
constexpr std::size_t kContextDescriptors = 16;
constexpr std::size_t kProcessDescriptors = 64;
// Left to the rest of the machine.
constexpr double kMemoryLeft = 0.25;
constexpr double kDescriptorsLeft = 0.25;

struct Control {
  std::atomic<std::uint64_t> contexts{0};
  std::atomic<std::uint64_t> found{0};  // sources, by all contexts together; each one once a context
  std::atomic<bool> measureMemory{false};
  std::atomic<std::uint64_t> processesMeasured{0};
  std::atomic<std::uint64_t> heapKiB{0};
  std::atomic<std::uint64_t> descriptors{0};
  std::array<double, kJoins> createSeconds{};
  std::array<double, kJoins> foundSeconds{};
};

// The number of that line of a file of the proc file system.
std::uint64_t ProcNumber(const char* file, const std::string& label) {
  std::ifstream lines(file);
  for (std::string word; lines >> word;) {
    if (word == label + ":") {
      std::uint64_t number = 0;
      lines >> number;
      return number;
    }
  }
  throw std::runtime_error(std::string("no ") + label + " in " + file);
}

double Seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

struct Domain {
  std::size_t contexts;
  std::size_t sources;  // in all
  // Topics that every context receives, with a source each; a source is found once it is told of the subscription, so
  // that the sources count. 0: nobody receives anything, and everybody hears of every source.
  std::size_t common;

  // What each context finds, its own sources included.
  std::size_t Findable() const { return common > 0 ? common : sources; }

  std::string SourceName(std::size_t context, std::size_t source) const {
    const std::size_t stride = common > 0 ? contexts / common : 0;
    if (stride > 0 && context % stride == 0 && context / stride < common) {
      return CommonName(context / stride);
    }
    return "topic." + std::to_string(context) + "." + std::to_string(source);
  }
  static std::string CommonName(std::size_t number) { return "common." + std::to_string(number); }
};

void CountOne(void* found) { static_cast<std::atomic<std::uint64_t>*>(found)->fetch_add(1, std::memory_order_relaxed); }

int CountSource(const char*, const char*, void* clientd) {
  CountOne(clientd);
  return 0;
}

int CountSubscriber(lbm_src_t*, int event, void*, void* clientd) {
  if (event == LBM_SRC_EVENT_CONNECT) {
    CountOne(clientd);
  }
  return 0;
}

int Ignore(lbm_rcv_t*, lbm_msg_t*, void*) { return 0; }

// One that finds what there is to find in the domain.
lbm_context_t* CreateContext(const char* mode, const Domain& domain, std::atomic<std::uint64_t>& found) {
  lbm_context_attr_t* attributes = nullptr;
  Check(lbm_context_attr_create(&attributes));
  Check(lbm_context_attr_str_setopt(attributes, "operational_mode", mode));
  if (domain.common == 0) {
    const lbm_src_notify_func_t notify{CountSource, &found};
    Check(lbm_context_attr_setopt(attributes, "resolver_source_notification_function", &notify, sizeof notify));
  }
  lbm_context_t* context = nullptr;
  Check(lbm_context_create(&context, attributes, nullptr, nullptr));
  Check(lbm_context_attr_delete(attributes));
  return context;
}

// subscribers: counts the contexts that subscribe; may be null.
void Publish(lbm_context_t* context, const std::string& name, std::atomic<std::uint64_t>* subscribers) {
  lbm_topic_t* topic = nullptr;
  lbm_src_t* source = nullptr;
  Check(lbm_src_topic_alloc(&topic, context, name.c_str(), nullptr));
  Check(lbm_src_create(&source, context, topic, subscribers != nullptr ? CountSubscriber : nullptr, subscribers,
                       nullptr));
}

void SubscribeToCommon(lbm_context_t* context, const Domain& domain) {
  for (std::size_t number = 0; number < domain.common; ++number) {
    lbm_topic_t* topic = nullptr;
    lbm_rcv_t* receiver = nullptr;
    Check(lbm_rcv_topic_lookup(&topic, context, Domain::CommonName(number).c_str(), nullptr));
    Check(lbm_rcv_create(&receiver, context, topic, Ignore, nullptr, nullptr));
  }
}

std::uint64_t OpenDescriptors() {
  std::uint64_t count = 0;
  DIR* const directory = ::opendir("/proc/self/fd");
  while (::readdir(directory) != nullptr) {
    ++count;
  }
  ::closedir(directory);
  return count - 3;  // ".", ".." and this look itself
}

// Some contexts of the domain; never returns.
void Inhabit(Control& control, const Domain& domain, std::size_t firstNumber, std::size_t contexts) {
  for (std::size_t number = firstNumber; number < firstNumber + contexts; ++number) {
    lbm_context_t* const context = CreateContext("embedded", domain, control.found);
    for (std::size_t source = 0; source < domain.sources / domain.contexts; ++source) {
      Publish(context, domain.SourceName(number, source), domain.common > 0 ? &control.found : nullptr);
    }
    SubscribeToCommon(context, domain);
    control.contexts.fetch_add(1);
  }
  while (!control.measureMemory.load()) {
    std::this_thread::sleep_for(10ms);
  }
  control.heapKiB.fetch_add(ProcNumber("/proc/self/status", "RssAnon"));
  control.descriptors.fetch_add(OpenDescriptors());
  control.processesMeasured.fetch_add(1);
  while (true) {
    std::this_thread::sleep_for(1h);
  }
}

// Where all receive the same topics, the one that joins has a source too, as they all have.
void Join(Control& control, const Domain& domain, std::size_t turn) {
  std::atomic<std::uint64_t> foundHere{0};
  std::atomic<std::uint64_t>& found = domain.common > 0 ? control.found : foundHere;
  const std::uint64_t all = found.load() + domain.Findable();
  const Clock::time_point start = Clock::now();
  lbm_context_t* const context = CreateContext("sequential", domain, found);
  control.createSeconds[turn] = Seconds(Clock::now() - start);
  if (domain.common > 0) {
    Publish(context, domain.SourceName(domain.contexts, turn), nullptr);
    SubscribeToCommon(context, domain);
  }
  while (found.load() < all) {
    Check(lbm_context_process_events(context, 10));
  }
  control.foundSeconds[turn] = Seconds(Clock::now() - start);
  lbm_context_delete(context);
}

// Why a domain of that size is not to be tried; empty when it may be.
std::string TooLarge(std::size_t contexts) {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  const std::size_t inProcess =
      std::min(contexts, kContextsInProcess) * (contexts + kContextDescriptors) + kProcessDescriptors;
  if (inProcess > limit.rlim_max) {
    return "needs " + std::to_string(inProcess) + " descriptors a process of " + std::to_string(limit.rlim_max);
  }
  std::uint64_t machine = 0;
  std::ifstream("/proc/sys/fs/file-max") >> machine;
  const std::size_t all = contexts * (contexts + kContextDescriptors);
  if (static_cast<double>(all) > (1 - kDescriptorsLeft) * static_cast<double>(machine)) {
    return "needs " + std::to_string(all) + " of the machine's " + std::to_string(machine) + " descriptors";
  }
  return {};
}

// Waits for the domain to grow, as long as there are memory and time.
class Growth {
 public:
  Growth(compare::Processes& inhabitants, std::chrono::seconds atMost) : m_inhabitants(inhabitants), m_atMost(atMost) {}

  double Elapsed() const { return Seconds(Clock::now() - m_start); }  // seconds

  // Why the count stays below what is wanted; empty once it does not.
  std::string StoppedBelow(std::uint64_t wanted, const std::atomic<std::uint64_t>& count) {
    while (count.load() < wanted) {
      std::this_thread::sleep_for(5ms);
      m_inhabitants.ThrowIfAnyEnded();
      const std::uint64_t memoryNow = ProcNumber("/proc/meminfo", "MemAvailable");
      if (static_cast<double>(memoryNow) < kMemoryLeft * static_cast<double>(m_memory)) {
        return "memory ran short";
      }
      if (Clock::now() - m_start > m_atMost) {
        return "took more than " + std::to_string(m_atMost.count()) + " s";
      }
    }
    return {};
  }

 private:
  compare::Processes& m_inhabitants;
  const std::chrono::seconds m_atMost;
  const std::uint64_t m_memory = ProcNumber("/proc/meminfo", "MemTotal");
  const Clock::time_point m_start = Clock::now();
};

nlohmann::json Measure(const Domain& domain, std::chrono::seconds atMost) {
  const std::size_t contexts = domain.contexts;
  nlohmann::json result{{"contexts", contexts}, {"sources", domain.sources}, {"common", domain.common}};
  if (const std::string reason = TooLarge(contexts); !reason.empty()) {
    result["stopped"] = reason;
    return result;
  }
  const compare::Shared<Control> control;
  const std::uint64_t slabBefore = ProcNumber("/proc/meminfo", "Slab");
  compare::Processes inhabitants;
  Growth growth(inhabitants, atMost);
  std::uint64_t processes = 0;
  for (std::size_t number = 0; number < contexts; number += kContextsInProcess, ++processes) {
    const std::size_t count = std::min(kContextsInProcess, contexts - number);
    inhabitants.Start([&, number, count] { Inhabit(*control, domain, number, count); });
  }

  const auto reached = [&](const std::atomic<std::uint64_t>& count, std::uint64_t wanted) {
    const std::string stopped = growth.StoppedBelow(wanted, count);
    if (!stopped.empty()) {
      result["stopped"] = stopped;
      result["contexts_made"] = control->contexts.load();
      result["sources_found"] = control->found.load();
    }
    return stopped.empty();
  };
  if (!reached(control->contexts, contexts)) {
    return result;
  }
  const double created = growth.Elapsed();
  if (!reached(control->found, contexts * domain.Findable())) {
    return result;
  }
  const double settled = growth.Elapsed();
  result["create_seconds"] = created;
  result["settle_seconds"] = settled;
  result["found_seconds"] = settled - created;

  control->measureMemory.store(true);
  if (!reached(control->processesMeasured, processes)) {
    return result;
  }
  const std::uint64_t slabAfter = ProcNumber("/proc/meminfo", "Slab");
  result["heap_kib"] = control->heapKiB.load();
  result["kernel_kib"] = slabAfter > slabBefore ? slabAfter - slabBefore : 0;
  result["descriptors"] = control->descriptors.load();

  for (std::size_t turn = 0; turn < kJoins; ++turn) {
    compare::Processes joiner;
    joiner.Start([&] { Join(*control, domain, turn); });
    joiner.Wait(atMost);
  }
  result["join_create_seconds"] = control->createSeconds;
  result["join_seconds"] = control->foundSeconds;
  return result;
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Times a context's joining of a domain of the embedded engine; the result is a line of JSON.");
  Domain domain{.contexts = 100, .sources = 10'000, .common = 0};
  unsigned atMost = 300;
  app.add_option("--contexts", domain.contexts, "contexts of the domain")->check(CLI::Range(1, 100'000));
  app.add_option("--sources", domain.sources, "sources, spread over the contexts; a multiple of their number");
  app.add_option("--common", domain.common,
                 "topics that all contexts receive; each has one source then, and hears of no others");
  app.add_option("--at-most", atMost, "seconds that building the domain may take");
  CLI11_PARSE(app, argc, argv);
  domain.sources -= domain.sources % domain.contexts;
  if (domain.common > domain.contexts || (domain.common > 0 && domain.sources != domain.contexts)) {
    throw std::invalid_argument("common topics need one source for each context, and as many contexts at least");
  }

  const test_support::TemporaryDirectory directory;
  ::setenv("LBM_RUNTIME_DIR", directory.Path().c_str(), 1);
  std::puts(Measure(domain, std::chrono::seconds(atMost)).dump().c_str());
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
