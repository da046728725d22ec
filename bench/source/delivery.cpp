// From the C receiver callback to the application's function: the owning layer against the same work written in C.
#include <lbm/lbm_cpp>

#include "bench/bench.h"
#include "test_support/private_domain.h"

namespace {

std::size_t g_bytesSeen = 0;

// What the application does with a message, the same for both.
void Consume(lbm_msg_t* message) {
  g_bytesSeen += message->len;
  benchmark::DoNotOptimize(g_bytesSeen);
}

using ApplicationFunction = void (*)(lbm_msg_t*);

// The same work in C: retain, call, release.
int CallbackInC(lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
  ApplicationFunction* const function = static_cast<ApplicationFunction*>(clientd);
  if (function == nullptr || *function == nullptr) {
    return 0;
  }
  lbm_msg_retain(message);
  (*function)(message);
  lbm_msg_delete(message);
  return 0;
}

// A message of the engine's own, a context's to itself.
class Delivered {
 public:
  Delivered() {
    lbm::ContextAttributes attributes;
    attributes.SetString("operational_mode", "sequential");
    lbm::Context context(attributes);
    lbm::Receiver receiver(context, {context, "BENCH", {}}, [this](lbm::Message message) {
      if (message.Type() == LBM_MSG_DATA) {
        m_message = std::move(message);
      }
    });
    lbm::Source source(context, {context, "BENCH", {}}, {});
    while (m_message == nullptr) {
      source.Send("a price, 8+ bytes", 17, LBM_SRC_FLUSH);
      context.Poll(1);
    }
  }

  operator lbm_msg_t*() const { return m_message; }

 private:
  test_support::PrivateDomain m_domain;
  lbm::Message m_message;
};

// Called through a volatile pointer, as the engine calls what it was registered with.
void Deliver(benchmark::State& state, lbm_rcv_cb_proc callback, void* clientd, lbm_msg_t* message) {
  lbm_rcv_cb_proc volatile registered = callback;
  bench::AllocationCounter allocations(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(registered(nullptr, message, clientd));
  }
  allocations.Report();
}

void ThroughC(benchmark::State& state) {
  const Delivered message;
  ApplicationFunction function = Consume;
  Deliver(state, CallbackInC, &function, message);
}

void ThroughReceiver(benchmark::State& state) {
  bench::CompareWith(state, "ThroughC");
  const Delivered message;
  const test_support::PrivateDomain domain;
  lbm::ContextAttributes attributes;
  attributes.SetString("operational_mode", "sequential");
  lbm::Context context(attributes);
  // NOLINTNEXTLINE(performance-unnecessary-value-param): as most applications write it
  lbm::Receiver receiver(context, {context, "BENCH", {}}, [](lbm::Message taken) { Consume(taken); });
  Deliver(state, lbm::Receiver::LbmCallback, &receiver, message);
}

BENCHMARK(ThroughC);
BENCHMARK(ThroughReceiver);

}  // namespace
