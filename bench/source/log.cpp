// What a log statement costs, apart from what a back end does with it.
#include <sstream>
#include <string>

#include "bench/bench.h"
#include "zq/logging/logger.h"

namespace {

void EmptyLoop(benchmark::State& state) {
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++value);
  }
}

void Disabled(benchmark::State& state) {
  bench::CompareWith(state, "EmptyLoop");
  bench::AllocationCounter allocations(state);
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++value);
    ZQLOG(ZQLOG_DEBUG, 1, "value=" << value);
  }
  allocations.Report();
}

constexpr const char* kTopic = "price.server.7.3.1.request";

// An ordinary statement. What it allocates is the finished text, which the back end gets to keep.
void Enabled(benchmark::State& state) {
  bench::CompareWith(state, "EnabledWithFreshStream");
  // The thread's first statement makes its stream.
  ZQLOG(ZQLOG_INFO, 1, "Created source on topic=" << kTopic << " number=" << 0);
  bench::AllocationCounter allocations(state);
  int value = 0;
  for (auto _ : state) {
    ZQLOG(ZQLOG_INFO, 1, "Created source on topic=" << kTopic << " number=" << ++value);
  }
  allocations.Report();
}

// The same text through a stream of its own: what the statement would cost if it did not keep one per thread.
void EnabledWithFreshStream(benchmark::State& state) {
  bench::AllocationCounter allocations(state);
  int value = 0;
  for (auto _ : state) {
    std::ostringstream stream;
    stream << "Created source on topic=" << kTopic << " number=" << ++value;
    zq::logging::LogMessage(zq::logging::ZQLOG_INFO, 1, zq::logging::ZQLOG_DECODE_AS_KV, {}, __FILE__, __LINE__,
                            stream.str(), {});
  }
  allocations.Report();
}

// A text so short that a string holds it without an allocation: any that is counted would be the stream's.
void EnabledShortText(benchmark::State& state) {
  ZQLOG(ZQLOG_INFO, 1, "value=" << 0);
  bench::AllocationCounter allocations(state);
  int value = 0;
  for (auto _ : state) {
    ZQLOG(ZQLOG_INFO, 1, "value=" << ++value % 1000);
  }
  allocations.Report();
}

BENCHMARK(EmptyLoop);
BENCHMARK(Disabled);
BENCHMARK(EnabledWithFreshStream);
BENCHMARK(Enabled);
BENCHMARK(EnabledShortText);

}  // namespace
