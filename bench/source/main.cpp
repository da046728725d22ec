#include <string>

#include "bench/bench.h"

void bench::CompareWith(benchmark::State& state, const char* baseline) {
  state.SetLabel(std::string("vs ") + baseline);
}

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::AddCustomContext("price_connector", PRICE_CONNECTOR_VERSION);
  benchmark::AddCustomContext("compiler", "g++ " __VERSION__);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
