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
  std::atomic<std::uint64_t> found{0};  // sources, by all contexts together
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

int CountFound(const char*, const char*, void* clientd) {
  static_cast<std::atomic<std::uint64_t>*>(clientd)->fetch_add(1, std::memory_order_relaxed);
  return 0;
}

lbm_context_t* CreateContext(const char* mode, std::atomic<std::uint64_t>& found) {
  lbm_context_attr_t* attributes = nullptr;
  Check(lbm_context_attr_create(&attributes));
  Check(lbm_context_attr_str_setopt(attributes, "operational_mode", mode));
  const lbm_src_notify_func_t notify{CountFound, &found};
  Check(lbm_context_attr_setopt(attributes, "resolver_source_notification_function", &notify, sizeof notify));
  lbm_context_t* context = nullptr;
  Check(lbm_context_create(&context, attributes, nullptr, nullptr));
  Check(lbm_context_attr_delete(attributes));
  return context;
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
void Inhabit(Control& control, std::size_t contexts, std::size_t sourcesOfEach, std::size_t firstNumber) {
  for (std::size_t number = firstNumber; number < firstNumber + contexts; ++number) {
    lbm_context_t* const context = CreateContext("embedded", control.found);
    for (std::size_t source = 0; source < sourcesOfEach; ++source) {
      const std::string name = "topic." + std::to_string(number) + "." + std::to_string(source);
      lbm_topic_t* topic = nullptr;
      lbm_src_t* made = nullptr;
      Check(lbm_src_topic_alloc(&topic, context, name.c_str(), nullptr));
      Check(lbm_src_create(&made, context, topic, nullptr, nullptr, nullptr));
    }
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

void Join(Control& control, std::size_t sources, std::size_t turn) {
  std::atomic<std::uint64_t> found{0};
  const Clock::time_point start = Clock::now();
  lbm_context_t* const context = CreateContext("sequential", found);
  control.createSeconds[turn] = Seconds(Clock::now() - start);
  while (found.load() < sources) {
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

nlohmann::json Measure(std::size_t contexts, std::size_t sources, std::chrono::seconds atMost) {
  nlohmann::json result{{"contexts", contexts}, {"sources", sources}};
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
    inhabitants.Start([&, number, count] { Inhabit(*control, count, sources / contexts, number); });
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
  result["create_seconds"] = growth.Elapsed();
  // Every context finds its own sources too.
  if (!reached(control->found, contexts * sources)) {
    return result;
  }
  result["settle_seconds"] = growth.Elapsed();

  control->measureMemory.store(true);
  if (!reached(control->processesMeasured, processes)) {
    return result;
  }
  const std::uint64_t slabAfter = ProcNumber("/proc/meminfo", "Slab");
  result["heap_mib"] = control->heapKiB.load() / 1024;
  result["kernel_mib"] = slabAfter > slabBefore ? (slabAfter - slabBefore) / 1024 : 0;
  result["descriptors"] = control->descriptors.load();

  for (std::size_t turn = 0; turn < kJoins; ++turn) {
    compare::Processes joiner;
    joiner.Start([&] { Join(*control, sources, turn); });
    joiner.Wait(atMost);
  }
  result["join_create_seconds"] = control->createSeconds;
  result["join_seconds"] = control->foundSeconds;
  return result;
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Times a context's joining of a domain of the embedded engine; the result is a line of JSON.");
  std::size_t contexts = 100;
  std::size_t sources = 10'000;
  unsigned atMost = 300;
  app.add_option("--contexts", contexts, "contexts of the domain")->check(CLI::Range(1, 100'000));
  app.add_option("--sources", sources, "sources, spread over the contexts; a multiple of their number");
  app.add_option("--at-most", atMost, "seconds that building the domain may take");
  CLI11_PARSE(app, argc, argv);
  sources -= sources % contexts;

  const test_support::TemporaryDirectory directory;
  ::setenv("LBM_RUNTIME_DIR", directory.Path().c_str(), 1);
  std::puts(Measure(contexts, sources, std::chrono::seconds(atMost)).dump().c_str());
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
