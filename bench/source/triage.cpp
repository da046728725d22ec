// What triage requests cost the process that serves them, with contexts on the scripted provider: from the receiver's
// callback to the answer that is handed to the library.
#include <lbm/lbm_cpp>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "bench/bench.h"
#include "lbm_scripted/lbm_scripted.h"
#include "zq/logging/log_level.h"
#include "zq/messaging/triage.pb.h"
#include "zq/messaging/triage_requests.h"

namespace {

using zq::messaging::triage::NakKillRequest;
using zq::messaging::triage::TestRequest;

// The recorded calls are kept until the run's end, so their number has a limit.
constexpr int kRequests = 20'000;

// What a context reads and writes beside the library.
struct Surroundings {
  Surroundings() {
    ::setenv("CHEF_ENVIRONMENT", "bench", 1);
    ::setenv("DATA_CENTER", "here", 1);
    lbm_scripted::Reset();
  }
  // A context prints a line when it goes.
  ~Surroundings() { std::cout.rdbuf(output); }

  std::streambuf* const output = std::cout.rdbuf(nullptr);
};

lbm::ContextAttributes Named(const std::string& name) {
  lbm::ContextAttributes attributes;
  attributes.SetString("context_name", name.c_str());
  return attributes;
}

// So many registered contexts, the first of which has the receivers. All others are one context under many names, since
// the handler asks nothing of a context but to switch its NAKs, which is the same for all.
class Contexts {
 public:
  explicit Contexts(std::int64_t count) : m_others(count - 1) {
    for (std::int64_t number = 0; number < m_others; ++number) {
      m_handler->registerContext("priceenvironment_" + std::to_string(number), &m_other);
    }
    const auto call = lbm_scripted::CallsTo("lbm_rcv_create").at(0);
    m_callback = call.Function<lbm_rcv_cb_proc>("proc");
    m_clientd = const_cast<void*>(call.Pointer("clientd"));
  }

  ~Contexts() {
    for (std::int64_t number = 0; number < m_others; ++number) {
      m_handler->unregisterContext(&m_other);
    }
  }

  Contexts(const Contexts&) = delete;
  Contexts& operator=(const Contexts&) = delete;

  void Serve(lbm_msg_t* request) const { m_callback(nullptr, request, m_clientd); }

 private:
  const Surroundings m_surroundings;
  const std::int64_t m_others;
  const std::shared_ptr<lbm::LbmTriageHandler> m_handler = lbm::LbmTriageHandler::getInstance();
  lbm::Context m_first{Named("")};
  lbm::Context m_other{Named("other")};
  lbm_rcv_cb_proc m_callback;
  void* m_clientd;
};

class Request {
 public:
  explicit Request(const std::string& data)
      : m_message(lbm_scripted::MakeMessage({.data = data, .type = LBM_MSG_REQUEST}, "TRIAGE.ACTION.BENCH.LBM")) {}
  ~Request() { lbm_msg_delete(m_message); }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  operator lbm_msg_t*() const { return m_message; }

 private:
  lbm_msg_t* m_message;
};

// With the log lines that are written at the normal level.
void AnswerTestRequest(benchmark::State& state) {
  if (state.range(0) != 1) {
    bench::CompareWith(state, "AnswerTestRequest/1/iterations:20000");
  }
  zq::logging::g_minLogLevel = zq::logging::ZQLOG_INFO;
  const Contexts contexts(state.range(0));
  const Request request(TestRequest("triage-box-4711-1767225600000"));
  for (auto _ : state) {
    contexts.Serve(request);
  }
}

// Time is per context. All but two match by name; nothing is logged.
void SwitchNaks(benchmark::State& state) {
  if (state.range(0) != 100) {
    bench::CompareWith(state, "SwitchNaks/100");
  }
  zq::logging::g_minLogLevel = zq::logging::ZQLOG_WALL;
  const Contexts contexts(state.range(0));
  const Request request(NakKillRequest(zq::messaging::triage::PRICE, false, "id"));
  while (state.KeepRunningBatch(state.range(0))) {
    contexts.Serve(request);
  }
}

BENCHMARK(AnswerTestRequest)->Arg(1)->Arg(100)->Arg(10'000)->Iterations(kRequests);
BENCHMARK(SwitchNaks)->Arg(100)->Arg(1000)->Arg(10'000);

}  // namespace
