// From a request to its answer, between two processes on the engine, as clients and operations tools see it.
#include <lbm/lbm_cpp>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "test_support/private_domain.h"
#include "zq/logging/log_level.h"
#include "zq/messaging/triage_requests.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRoundTrips = 20'000;
constexpr int kWarmUp = 2'000;
constexpr lbm_ulong_t kPollMs = 100;
const std::string kPlainTopic = "ASK";
const std::string kTriageTopic = zq::messaging::triage::ActionTopic("", "bench");

lbm::ContextAttributes Sequential() {
  lbm::ContextAttributes attributes;
  attributes.SetString("operational_mode", "sequential");
  return attributes;
}

// Answers on both topics, with the log lines that are written at the normal level, until it is killed.
[[noreturn]] void Respond() {
  zq::logging::g_minLogLevel = zq::logging::ZQLOG_INFO;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::setenv("CHEF_ENVIRONMENT", "bench", 1);
  ::setenv("DATA_CENTER", "here", 1);
  lbm::Context context(Sequential());
  const std::string answer(64, 'a');
  lbm::Receiver receiver(context, {context, kPlainTopic, {}}, [&](const lbm::Message& message) {
    if (message.Type() == LBM_MSG_REQUEST) {
      message.GetResponse().Send(answer, LBM_SRC_NONBLOCK);
    }
  });
  for (;;) {
    context.Poll(kPollMs);
  }
}

// Made before this process has contexts of its own, so that the responder starts as any other process does.
class Responder {
 public:
  Responder() {
    m_process = ::fork();
    if (m_process == 0) {
      Respond();
    }
  }
  ~Responder() {
    ::kill(m_process, SIGKILL);
    ::waitpid(m_process, nullptr, 0);
  }
  Responder(const Responder&) = delete;
  Responder& operator=(const Responder&) = delete;

 private:
  const test_support::PrivateDomain m_domain;
  pid_t m_process;
};

std::chrono::nanoseconds RoundTrip(lbm::Context& context, lbm::Source& source, const std::string& data) {
  bool answered = false;
  const auto start = Clock::now();
  const auto request =
      source.SendRequest(data.data(), data.size(), LBM_SRC_FLUSH, [&](const lbm::Message&) { answered = true; });
  while (!answered) {
    context.Poll(kPollMs);
  }
  return Clock::now() - start;
}

void ReportQuantiles(benchmark::State& state, std::vector<std::chrono::nanoseconds>& times) {
  std::sort(times.begin(), times.end());
  const auto quantile = [&](double fraction) {
    return static_cast<double>(
        times[static_cast<std::size_t>(fraction * static_cast<double>(times.size() - 1))].count());
  };
  state.counters["p50_ns"] = quantile(0.5);
  state.counters["p99_ns"] = quantile(0.99);
  state.counters["p99.9_ns"] = quantile(0.999);
}

void Measure(benchmark::State& state, const std::string& topic, const std::string& data) {
  static const Responder responder;
  zq::logging::g_minLogLevel = zq::logging::ZQLOG_WARNING;
  // This process asks; it is not one of those to be asked.
  ::setenv("DISABLE_LBM_TRIAGE_HANDLER", "1", 1);
  auto* const output = std::cout.rdbuf(nullptr);
  {
    lbm::Context context(Sequential());
    bool heard = false;
    lbm::Source source(context, {context, topic, {}},
                       [&](int event, void*) { heard |= event == LBM_SRC_EVENT_CONNECT; });
    while (!heard) {
      context.Poll(kPollMs);
    }
    for (int count = 0; count < kWarmUp; ++count) {
      RoundTrip(context, source, data);
    }
    std::vector<std::chrono::nanoseconds> times;
    for (auto _ : state) {
      times.push_back(RoundTrip(context, source, data));
      state.SetIterationTime(std::chrono::duration<double>(times.back()).count());
    }
    ReportQuantiles(state, times);
  }
  std::cout.rdbuf(output);
}

void RequestToResponse(benchmark::State& state) { Measure(state, kPlainTopic, std::string(64, 'q')); }

void TriageTestRequest(benchmark::State& state) {
  Measure(state, kTriageTopic, zq::messaging::triage::TestRequest("triage-box-4711-1767225600000"));
}

BENCHMARK(RequestToResponse)->Iterations(kRoundTrips)->UseManualTime();
BENCHMARK(TriageTestRequest)->Iterations(kRoundTrips)->UseManualTime();

}  // namespace
